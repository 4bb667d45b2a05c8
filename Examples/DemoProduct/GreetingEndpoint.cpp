#include "Examples/DemoProduct/GreetingEndpoint.h"

#include <utility>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "ServiceManager/ServiceManager/Protocols.h"

using namespace platform;

class GreetingEndpoint::Greeter final : public NSXPCListenerDelegate,
                                        public NSXPCExportedObject,
                                        public std::enable_shared_from_this<Greeter> {
 public:
  explicit Greeter(std::string name) : name_(std::move(name)) {}

  bool listener(NSXPCListener& /*listener*/,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(&greetingProtocol());
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }
  void receiveMessage(std::string_view /*selector*/, const Array& /*arguments*/,
                      XPCReply reply) override {
    reply({Value("Hello from " + name_)});
  }

 private:
  const std::string name_;
};

GreetingEndpoint::GreetingEndpoint(XPC& xpc, DistributedNotificationCenter& center,
                                   const SystemInformation& system, const ProtocolTable& protocols,
                                   SystemLog& log, std::string name)
    : xpc_(xpc),
      system_(system),
      protocols_(protocols),
      log_(log),
      name_(std::move(name)),
      greeter_(std::make_shared<Greeter>(name_)),
      listener_(xpc.makeAnonymousListener()),
      observation_(center.addObserver(kEndpointRequestNotification, std::nullopt,
                                      [this](const DistributedNotification& notification) {
                                        if (notification.userInfo[kEndpointRequestName] ==
                                            Value(name_))
                                          registerIt();
                                      })) {
  listener_->setDelegate(greeter_);
  listener_->resume();
}

void GreetingEndpoint::registerIt() {
  registry_ = xpc_.makeConnection(kEndpointRegistryService);
  registry_->setRemoteObjectInterface(protocols_.find(kORBServiceManagerXPCInterfaceProtocol));
  registry_->resume();
  registry_->sendMessage(
      "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
      {Value(std::shared_ptr<const RemoteObject>(listener_->endpoint())),
       Value(systemProfileData(system_)), Value(name_)},
      [&log = log_](const Array& reply) {
        const bool done = !reply.empty() && reply.front() == Value(true);
        log.asl_log(nullptr, ASL_LEVEL_NOTICE,
                    done ? "endpoint registered" : "endpoint not registered");
      },
      [&log = log_](const NSError& error) {
        log.asl_log(nullptr, ASL_LEVEL_ERR, error.localizedDescription);
      });
}
