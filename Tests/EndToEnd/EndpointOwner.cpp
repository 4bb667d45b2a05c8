#include "Tests/EndToEnd/EndpointOwner.h"

#include <string_view>
#include <utility>

#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace platform {
namespace {

constexpr char kWho[] = "whoWithReply:";

const Protocol& whoProtocol() {
  static const Protocol protocol("Who", {{kWho, MethodDescription::Kind::kTwoWay}});
  return protocol;
}

}  // namespace

class EndpointOwner::Greeter final : public NSXPCListenerDelegate,
                                     public NSXPCExportedObject,
                                     public std::enable_shared_from_this<Greeter> {
 public:
  explicit Greeter(std::string name) : name_(std::move(name)) {}

  bool listener(NSXPCListener& /*listener*/,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(&whoProtocol());
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }
  void receiveMessage(std::string_view /*selector*/, const Array& /*arguments*/,
                      XPCReply reply) override {
    reply({Value(name_)});
  }

 private:
  const std::string name_;
};

EndpointOwner::EndpointOwner(XPC& xpc, std::string name)
    : greeter_(std::make_shared<Greeter>(std::move(name))), listener_(xpc.makeAnonymousListener()) {
  listener_->setDelegate(greeter_);
  listener_->resume();
}

Value EndpointOwner::endpoint() {
  return Value(std::shared_ptr<const RemoteObject>(listener_->endpoint()));
}

std::optional<Array> EndpointOwner::ask(XPC& xpc,
                                        std::shared_ptr<const NSXPCListenerEndpoint> endpoint) {
  const auto connection = xpc.makeConnection(std::move(endpoint));
  connection->setRemoteObjectInterface(&whoProtocol());
  connection->resume();
  return RegistryClient::ask(*connection, kWho);
}

}  // namespace platform
