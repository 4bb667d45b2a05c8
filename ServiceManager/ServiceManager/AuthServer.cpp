#include "ServiceManager/ServiceManager/AuthServer.h"

#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

MessageResult AuthServer::receiveMessage(std::string_view selector, const Array& arguments) {
  if (selector == "retrieveKey") return secret_;
  return ServerMessage{ORBServiceManager::kClassName, selector, arguments}.unrecognizedSelector();
}
