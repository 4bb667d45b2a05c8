#include "ServiceManager/ServiceManager/InstallerServer.h"

#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

MessageResult InstallerServer::receiveMessage(std::string_view selector, const Array& arguments) {
  const ServerMessage message{ORBServiceManager::kClassName, selector, arguments};
  if (selector == "evaluateServices") return manager_.evaluateServices();
  if (selector == "shutdownServices:") {
    return message.withLabels(
        [this](const Array& labels) { return manager_.shutdownServices(labels); });
  }
  return message.unrecognizedSelector();
}
