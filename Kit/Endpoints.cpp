#include <algorithm>
#include <chrono>
#include <future>
#include <optional>
#include <utility>

#include <vantor/Endpoints.h>

#include "Kit/ProgramParts.h"
#include "Kit/Values.h"
#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/NSXPCListener.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace vantor {
namespace {

using std::chrono::milliseconds;

// How often the registry is asked for a name whose owner has been asked to register it.
constexpr milliseconds kLookupPause(50);

platform::Protocol protocolOf(const std::string& name, const std::vector<std::string>& selectors) {
  std::vector<platform::MethodDescription> methods;
  for (const std::string& selector : selectors) methods.push_back({selector});
  return platform::Protocol(name, methods);
}

Error errorOfXPC(const platform::NSError& error) {
  const ErrorCode code = error.code == platform::NSXPCConnectionReplyInvalid ? ErrorCode::kDenied
                                                                             : ErrorCode::kNotFound;
  return {code, error.localizedDescription};
}

Result<platform::Array> callAndWait(platform::NSXPCConnection& connection,
                                    std::string_view selector, platform::Array arguments,
                                    milliseconds timeOut) {
  // Shared with the handlers, which may outlive the wait.
  const auto reply = std::make_shared<std::promise<Result<platform::Array>>>();
  connection.sendMessage(
      selector, std::move(arguments),
      [reply](platform::Array values) { reply->set_value(std::move(values)); },
      [reply](const platform::NSError& error) { reply->set_value(errorOfXPC(error)); });
  auto future = reply->get_future();
  if (future.wait_for(timeOut) == std::future_status::ready) return future.get();
  return Error{ErrorCode::kTimedOut, "no answer to " + std::string(selector) + " in time"};
}

std::shared_ptr<platform::NSXPCConnection> connectionToRegistry(ProgramParts& program,
                                                                platform::XPC& xpc) {
  auto registry = xpc.makeConnection(kEndpointRegistryService);
  registry->setRemoteObjectInterface(
      program.protocols.find(kORBServiceManagerXPCInterfaceProtocol));
  registry->resume();
  return registry;
}

std::shared_ptr<platform::NSXPCConnection> connectionTo(
    platform::XPC& xpc, std::shared_ptr<const platform::NSXPCListenerEndpoint> endpoint,
    std::shared_ptr<const platform::Protocol> interface) {
  auto connection = xpc.makeConnection(std::move(endpoint));
  connection->setRemoteObjectInterface(interface.get());
  // The handler owns the interface: the XPC's thread may still have to send a message when its
  // caller has timed out and has dropped the peer.
  connection->setInvalidationHandler([interface = std::move(interface)] {});
  connection->resume();
  return connection;
}

}  // namespace

struct EndpointParts {
  // Serves the clients of an endpoint, and lives as long as their connections.
  class Served final : public platform::NSXPCListenerDelegate,
                       public platform::NSXPCExportedObject,
                       public std::enable_shared_from_this<Served> {
   public:
    Served(platform::Protocol protocol, Endpoint::Handler handler)
        : protocol_(std::move(protocol)), handler_(std::move(handler)) {}

    bool listener(platform::NSXPCListener& /*listener*/,
                  const std::shared_ptr<platform::NSXPCConnection>& connection) override {
      connection->setExportedInterface(&protocol_);
      connection->setExportedObject(shared_from_this());
      connection->resume();
      return true;
    }

    void receiveMessage(std::string_view selector, const platform::Array& arguments,
                        platform::XPCReply reply) override {
      const auto values = handler_(std::string(selector), kitArray(arguments));
      if (values) return reply(platformArray(*values));
      // XPC has no exceptions: without a reply the client would wait until the connection ends.
      platform::NSXPCConnection::currentConnection()->invalidate();
    }

   private:
    const platform::Protocol protocol_;
    const Endpoint::Handler handler_;
  };

  EndpointParts(ProgramParts& of, platform::XPC& with, std::string named,
                std::shared_ptr<Served> serving)
      : program(of),
        xpc(with),
        name(std::move(named)),
        served(std::move(serving)),
        listener(xpc.makeAnonymousListener()) {
    listener->setDelegate(served);
    listener->resume();
    observation = program.center().addObserver(
        kEndpointRequestNotification, std::nullopt,
        [this](const platform::DistributedNotification& posted) {
          if (posted.userInfo[kEndpointRequestName] == platform::Value(name)) registerIt();
        });
  }
  EndpointParts(const EndpointParts&) = delete;
  EndpointParts& operator=(const EndpointParts&) = delete;

  void registerIt() {
    platform::SystemLog& log = program.linux->systemLog;
    registry = connectionToRegistry(program, xpc);
    registry->sendMessage(
        "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
        {std::shared_ptr<const platform::RemoteObject>(listener->endpoint()),
         systemProfileData(program.linux->systemInformation), name},
        [&log](const platform::Array& reply) {
          const bool done = !reply.empty() && reply.front() == platform::Value(true);
          log.asl_log(nullptr, platform::ASL_LEVEL_NOTICE,
                      done ? "endpoint registered" : "endpoint not registered");
        },
        [&log](const platform::NSError& error) {
          log.asl_log(nullptr, platform::ASL_LEVEL_ERR, error.localizedDescription);
        });
  }

  ProgramParts& program;
  platform::XPC& xpc;
  const std::string name;
  const std::shared_ptr<Served> served;  // shared with its clients' connections
  const std::shared_ptr<platform::NSXPCListener> listener;
  std::shared_ptr<platform::NSXPCConnection> registry;
  std::unique_ptr<platform::DistributedNotificationCenter::Observation> observation;
};

struct PeerParts {
  std::shared_ptr<platform::NSXPCConnection> connection;
};

Result<Endpoint> Endpoint::serve(Program& program, std::string_view name,
                                 const std::vector<std::string>& selectors, Handler handler) {
  ProgramParts& parts = program.parts();
  const auto xpc = parts.xpc();
  if (!xpc) return xpc.error();
  const std::string text(name);
  auto made = std::make_unique<EndpointParts>(
      parts, **xpc, text,
      std::make_shared<EndpointParts::Served>(protocolOf(text, selectors), std::move(handler)));
  if (!made->listener->endpoint())
    return Error{ErrorCode::kExhausted, "no listener can be made; the log says why"};
  return Endpoint(std::move(made));
}

Endpoint::Endpoint(std::unique_ptr<EndpointParts> parts) : parts_(std::move(parts)) {}
Endpoint::Endpoint(Endpoint&& other) noexcept = default;
Endpoint& Endpoint::operator=(Endpoint&& other) noexcept = default;
Endpoint::~Endpoint() = default;

Result<Peer> Peer::lookUp(Program& program, std::string_view name,
                          const std::vector<std::string>& selectors, milliseconds timeOut) {
  ProgramParts& parts = program.parts();
  const auto xpc = parts.xpc();
  if (!xpc) return xpc.error();
  platform::RunLoop& loop = *parts.linux->runLoop;
  const platform::Instant deadline = loop.now() + timeOut;
  const auto registry = connectionToRegistry(parts, **xpc);
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - loop.now());
    const auto reply = callAndWait(*registry, "xpcListenerEndpointForPasskey:withName:withReply:",
                                   {systemProfileData(parts.linux->systemInformation), name},
                                   std::max(left, milliseconds::zero()));
    if (!reply) return reply.error();
    if (auto endpoint = reply->empty() ? nullptr : platform::endpointIn(reply->front())) {
      auto interface =
          std::make_shared<const platform::Protocol>(protocolOf(std::string(name), selectors));
      return Peer(std::make_unique<PeerParts>(
          connectionTo(**xpc, std::move(endpoint), std::move(interface))));
    }
    if (loop.now() + kLookupPause >= deadline)
      return Error{ErrorCode::kNotFound, std::string(name) + ": nobody has registered it"};
    loop.sleepFor(kLookupPause);  // The owner has been asked to register.
  }
}

Peer::Peer(std::unique_ptr<PeerParts> parts) : parts_(std::move(parts)) {}
Peer::Peer(Peer&& other) noexcept = default;
Peer& Peer::operator=(Peer&& other) noexcept = default;
Peer::~Peer() = default;

Result<Array> Peer::call(std::string_view selector, const Array& arguments, milliseconds timeOut) {
  const auto reply = callAndWait(*parts_->connection, selector, platformArray(arguments), timeOut);
  if (!reply) return reply.error();
  return kitArray(*reply);
}

Result<ExecutableInfo> executableInfo(Program& program, std::string_view path,
                                      milliseconds timeOut) {
  static constexpr char kSelector[] = "requestExecutableInfo:withReply:";
  auto service = Peer::lookUp(program, kExecInfoEndpoint, {kSelector}, timeOut);
  if (!service) return service.error();
  const auto reply = service->call(kSelector, {path}, timeOut);
  if (!reply) return reply.error();
  const auto text = [&](std::size_t index) {
    return index < reply->size() ? (*reply)[index].text().value_or("") : std::string();
  };
  return ExecutableInfo{text(0), text(1), text(2)};
}

}  // namespace vantor
