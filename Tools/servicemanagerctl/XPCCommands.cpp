#include "Tools/servicemanagerctl/XPCCommands.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <expected>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <semaphore>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/XPC/NSXPCListener.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/FileVerdict.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;

// How long to wait for a reply, and the text and status for a reply that does not come.
struct ReplyTimeOut {
  std::chrono::seconds limit;
  std::string text;
  int exitStatus;
};

constexpr char kBusy[] =
    "it is there, but too busy or stuck: try again later, and see \"servicemanagerctl log\"";

// The daemon answers every client at once.
ReplyTimeOut timeOutOfAnswer(const XPCCommands::Environment& environment) {
  return {environment.answerTimeOut, kBusy, kExitFailed};
}

// The daemon answers a lookup with the right passkey at once, and others never.
ReplyTimeOut timeOutOfLookup(const XPCCommands::Environment& environment) {
  return {environment.lookupTimeOut,
          "it answers nobody who is not of its product: use the servicemanagerctl that was "
          "installed with it",
          kExitNotAuthenticated};
}

ReplyTimeOut timeOutOfHash(const std::string& file, std::chrono::seconds limit) {
  return {limit,
          file + " is too large, what it lies on does not answer, or too many others are asked for",
          kExitFailed};
}

// Why there is no connection: an XPC connection does not say.
Refusal notConnected(const XPCCommands::Environment& environment) {
  const auto failure = environment.whyNotConnected();
  if (failure) {
    auto refused =
        refusalOfPermission(*failure, "the service manager", environment.group, environment.isRoot);
    if (refused) return *std::move(refused);
  }
  // It is reachable now: a daemon that was restarted meanwhile, or one that refused this client.
  if (!failure) {
    return {kExitFailed,
            "the service manager ended the connection before it answered; it may have been "
            "restarted: try again, and see \"servicemanagerctl log\""};
  }
  // A process has the name, even if it does not answer.
  if (failure->kind == PeerConnectFailure::Kind::kTimedOut)
    return {kExitFailed, fmt::format("the service manager takes no connection; {}", kBusy)};
  return {kExitNobodyThere,
          fmt::format("no service manager serves endpoints below {}; is it running? "
                      "\"servicemanagerctl jobs show com.vantor.servicemanager\" tells, and "
                      "\"servicemanagerctl list\" why one that runs is idle",
                      environment.root)};
}

// Blocks for the reply.
Answer<Array> ask(NSXPCConnection& connection, std::string_view selector, Array arguments,
                  const ReplyTimeOut& timeOut, const XPCCommands::Environment& environment) {
  // Shared with the handlers, which may outlive the wait.
  const auto answer = std::make_shared<std::promise<std::expected<Array, NSError>>>();
  connection.sendMessage(
      selector, std::move(arguments),
      [answer](Array values) { answer->set_value(std::move(values)); },
      [answer](const NSError& error) { answer->set_value(std::unexpected(error)); });
  auto future = answer->get_future();
  if (future.wait_for(timeOut.limit) != std::future_status::ready) {
    return std::unexpected(
        Refusal{timeOut.exitStatus, fmt::format("the service manager has not answered for {} s; {}",
                                                timeOut.limit.count(), timeOut.text)});
  }
  auto reply = future.get();
  if (reply) return std::move(*reply);
  if (reply.error().code != NSXPCConnectionReplyInvalid)
    return std::unexpected(notConnected(environment));
  return std::unexpected(
      Refusal{kExitFailed, "the service manager refused: " + reply.error().localizedDescription});
}

std::shared_ptr<NSXPCConnection> connected(std::shared_ptr<NSXPCConnection> connection,
                                           const ProtocolTable& protocols, const char* protocol) {
  connection->setRemoteObjectInterface(protocols.find(protocol));
  connection->resume();
  return connection;
}

Answer<std::shared_ptr<const NSXPCListenerEndpoint>> endpointOf(
    const XPCCommands::Environment& environment, NSXPCConnection& registry,
    const std::string& name) {
  auto reply = ask(registry, "xpcListenerEndpointForPasskey:withName:withReply:",
                   {Value(systemProfileData(environment.system)), Value(name)},
                   timeOutOfLookup(environment), environment);
  if (!reply) return std::unexpected(std::move(reply.error()));
  return reply->empty() ? nullptr : endpointIn(reply->front());
}

// Prints each peer that connects, and rejects it: the tool serves nothing.
class PeerPrinter final : public NSXPCListenerDelegate {
 public:
  explicit PeerPrinter(bool json) : json_(json) {}

  bool listener(NSXPCListener& /*listener*/,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    const auto process = connection->processIdentifier();
    const auto user = connection->effectiveUserIdentifier();
    print(json_ ? dumpedLine({{"event", "connected"}, {"pid", process}, {"uid", user}})
                : fmt::format("process {} of user {} connects\n", process, user));
    return false;
  }

 private:
  const bool json_;
};

// The service works in another folder and needs the path of the file itself. So resolve all links
// if they can be followed from here; otherwise only make the path absolute.
Answer<std::string> absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  if (error) {
    return std::unexpected(Refusal{
        kExitFailed, fmt::format("\"{}\" can't be told from here: {}", path, error.message())});
  }
  const auto canonical = std::filesystem::weakly_canonical(absolute, error);
  return (error ? absolute : canonical).string();
}

std::string textAt(const Array& reply, std::size_t index) {
  const std::string* text = index < reply.size() ? reply[index].string() : nullptr;
  return text ? *text : std::string();
}

}  // namespace

XPCCommands::XPCCommands(CLI::App& app) {
  endpoints_ = app.add_subcommand("endpoints", "The registry of endpoints");
  endpoints_->require_subcommand(1);
  register_ = endpoints_->add_subcommand(
      "register", "Register a listener of this command's own, and say who connects until it ends");
  lookup_ = endpoints_->add_subcommand("lookup", "Whether a name is registered");
  for (CLI::App* command : {register_, lookup_}) {
    command->add_option("NAME", name_, "The endpoint's name")->required();
  }
  lookup_->add_flag("--json", json_, "For programs");
  register_->add_flag("--json{lines}", lines_, "For programs, a line for each event")
      ->check(CLI::IsMember({"lines"}));
  execinfo_ = app.add_subcommand(
      "execinfo", "Who signed files, their SHA-256, and where they were downloaded from");
  execinfo_->add_option("PATH", paths_, "The files")->required();
  execinfo_->add_flag("--json", json_, "For programs");
}

int XPCCommands::run(const Environment& environment) const {
  if (!execinfo_->parsed() && name_.empty()) {
    fail("the endpoint's name is empty");
    return kExitNotUnderstood;
  }
  auto registry = environment.xpc.makeConnection(kEndpointRegistryService);
  // Shared with the handler, which may be running when the wait is over.
  const auto ended = std::make_shared<std::counting_semaphore<>>(0);
  registry->setInterruptionHandler([ended] { ended->release(); });
  registry =
      connected(std::move(registry), environment.protocols, kORBServiceManagerXPCInterfaceProtocol);
  const auto signature =
      ask(*registry, "signatureWithReply:", {}, timeOutOfAnswer(environment), environment);
  Answer<int> done = EXIT_SUCCESS;
  if (!signature) {
    done = std::unexpected(signature.error());
  } else if (signature->empty() ||
             signature->front() != Value(clientProfileData(environment.system))) {
    done = std::unexpected(Refusal{kExitNotAuthenticated,
                                   "what serves endpoints here is not this product's service "
                                   "manager"});
  } else if (execinfo_->parsed()) {
    done = tellExecutables(environment, registry);
  } else if (lookup_->parsed()) {
    done = lookUp(environment, registry);
  } else {
    done = std::unexpected(registerName(environment, registry, *ended));
  }
  if (done) return *done;
  fail(done.error().text);
  return done.error().exitStatus;
}

Refusal XPCCommands::registerName(const Environment& environment, const Connection& registry,
                                  std::counting_semaphore<>& ended) const {
  const auto printer = std::make_shared<PeerPrinter>(!lines_.empty());
  const auto listener = environment.xpc.makeAnonymousListener();
  listener->setDelegate(printer);
  listener->resume();
  const auto endpoint = listener->endpoint();
  if (!endpoint) return {kExitFailed, "no listener can be made here"};
  const auto reply = ask(*registry, "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
                         {Value(std::shared_ptr<const RemoteObject>(endpoint)),
                          Value(systemProfileData(environment.system)), Value(name_)},
                         timeOutOfAnswer(environment), environment);
  if (!reply) return reply.error();
  if (reply->empty() || reply->front() != Value(true)) {
    return {kExitFailed, "the service manager refused: " + textAt(*reply, 1)};
  }
  print(!lines_.empty()
            ? dumpedLine({{"event", "registered"}, {"name", name_}})
            : fmt::format("{} is registered; it ends with this command (Ctrl-C)\n", plain(name_)));
  ended.acquire();
  return {kExitFailed,
          "the service manager has ended; " + abridged(name_) + " is no longer registered"};
}

Answer<int> XPCCommands::lookUp(const Environment& environment, const Connection& registry) const {
  const auto endpoint = endpointOf(environment, *registry, name_);
  if (!endpoint) return std::unexpected(endpoint.error());
  if (json_) {
    print(dumpedAnswer({{"name", name_}, {"registered", *endpoint != nullptr}}));
  } else {
    print(fmt::format(
        "{} is {}\n", plain(name_),
        *endpoint ? "registered" : "not registered; its owner has been asked to register it"));
  }
  return *endpoint ? EXIT_SUCCESS : kExitFailed;
}

Answer<int> XPCCommands::tellExecutables(const Environment& environment,
                                         const Connection& registry) const {
  const auto endpoint = endpointOf(environment, *registry, kExecInfoEndpoint);
  if (!endpoint) return std::unexpected(endpoint.error());
  if (!*endpoint) return std::unexpected(notConnected(environment));
  const auto service = connected(environment.xpc.makeConnection(*endpoint), environment.protocols,
                                 kORBExecutableInfoProtocol);
  auto list = nlohmann::ordered_json::array();
  Answer<int> done = EXIT_SUCCESS;
  FileVerdict::Kind worst = FileVerdict::Kind::kIntact;
  for (const std::string& path : paths_) {
    const auto absolute = absolutePath(path);
    if (!absolute) {
      done = std::unexpected(absolute.error());
      break;
    }
    const std::string& file = *absolute;
    const auto reply = ask(*service, "requestExecutableInfo:withReply:", {Value(file)},
                           timeOutOfHash(file, environment.hashTimeOut), environment);
    if (!reply) {
      done = std::unexpected(reply.error());
      break;
    }
    const std::string signing = textAt(*reply, 0);
    const std::string hash = textAt(*reply, 1);
    const std::string source = textAt(*reply, 2);
    std::optional<FileVerdict> verdict;
    if (environment.check) verdict = fileVerdict(environment.check(file));
    if (verdict) worst = std::max(worst, verdict->kind);
    std::optional<std::string> placeFault;
    if (environment.faultOfPlace) placeFault = environment.faultOfPlace(file);
    std::optional<platform::CodeProtection> protection;
    if (environment.protectionOf) protection = environment.protectionOf(file);
    if (json_) {
      list.push_back({{"path", file}, {"signing", signing}, {"sha256", hash}, {"source", source}});
      if (verdict) {
        list.back()["verdict"] = verdictWord(verdict->kind);
        list.back()["reason"] = verdict->reason;
      }
      if (placeFault) list.back()["isPlaceTrusted"] = placeFault->empty();
      if (protection) list.back()["protection"] = protectionWord(*protection);
    } else {
      const auto told = [](const std::string& text) { return text.empty() ? "-" : plain(text); };
      print(fmt::format("{}\n  signing  {}\n  sha256   {}\n  source   {}\n", plain(file),
                        told(signing), told(hash), told(source)));
      if (verdict) print(fmt::format("  verdict  {}\n", inWords(*verdict)));
      if (placeFault) {
        print(fmt::format("  place    {}\n",
                          placeFault->empty() ? "trusted" : "not trusted: " + plain(*placeFault)));
      }
      if (protection)
        print(fmt::format("  kept by  {}\n", describeProtection(protectionWord(*protection))));
    }
  }
  // Print it also if a later file failed. A path may hold any bytes, and so may the text of an
  // attribute.
  if (json_) print(dumped(list));
  if (done) done = exitStatusOf(worst);
  return done;
}
