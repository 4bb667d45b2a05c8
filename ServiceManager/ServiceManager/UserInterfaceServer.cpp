#include "ServiceManager/ServiceManager/UserInterfaceServer.h"

#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

MessageResult UserInterfaceServer::receiveMessage(std::string_view selector,
                                                  const Array& arguments) {
  const ServerMessage message{ORBServiceManager::kClassName, selector, arguments};
  if (selector == "services") return manager_.services();
  if (selector == "pidForService:") {
    return message.withLabel([this](Label label) { return manager_.pidForService(label); });
  }
  if (selector == "lastExitStatusForService:") {
    return message.withLabel(
        [this](Label label) { return manager_.lastExitStatusForService(label); });
  }
  if (selector == "stopServices:") {
    return message.withLabels([this](const Array& labels) {
      manager_.stopServices(labels);
      return Value();
    });
  }
  if (selector == "startServices:") {
    return message.withLabels([this](const Array& labels) {
      manager_.startServices(labels);
      return Value();
    });
  }
  if (selector == "registerClient:") {
    const auto client = proxyIn(message.argument());
    if (!client && !message.argument().isNil()) return message.invalidArgument("a proxy");
    manager_.registerClient(client);
    return Value();
  }
  return message.unrecognizedSelector();
}
