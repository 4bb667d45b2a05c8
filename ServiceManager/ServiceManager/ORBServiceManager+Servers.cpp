#include <functional>
#include <map>
#include <string>

#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

namespace {

MessageResult raiseInvalidArgument(std::string_view selector, const char* expected,
                                   const Value& argument) {
  return std::unexpected(
      NSException{kNSInvalidArgumentException,
                  stringWithFormat("-[ORBServiceManager %@]: expected %s, got %s", selector,
                                   expected, argument.isNil() ? "nil" : className(argument)),
                  {}});
}

// Methods by the kind of their argument; what comes from a peer may be of any.

MessageResult withLabel(std::string_view selector, const Value& argument,
                        const std::function<Value(ORBServiceManager::Label)>& method) {
  if (argument.isNil()) return method(std::nullopt);
  if (!argument.string()) return raiseInvalidArgument(selector, "a label", argument);
  return method(*argument.string());
}

MessageResult withLabels(std::string_view selector, const Value& argument,
                         const std::function<Value(const Array&)>& method) {
  if (!argument.array()) return raiseInvalidArgument(selector, "an array of labels", argument);
  return method(*argument.array());
}

}  // namespace

MessageResult ORBServiceManager::receiveMessage(std::string_view selector, const Array& arguments) {
  const Value argument = arguments.empty() ? Value() : arguments.front();
  if (selector == "evaluateServices") return evaluateServices();
  if (selector == "services") return services();
  if (selector == "retrieveKey") return retrieveKey();
  if (selector == "pidForService:") {
    return withLabel(selector, argument, [this](Label label) { return pidForService(label); });
  }
  if (selector == "lastExitStatusForService:") {
    return withLabel(selector, argument,
                     [this](Label label) { return lastExitStatusForService(label); });
  }
  if (selector == "shutdownServices:") {
    return withLabels(selector, argument,
                      [this](const Array& labels) { return shutdownServices(labels); });
  }
  if (selector == "stopServices:") {
    return withLabels(selector, argument, [this](const Array& labels) {
      stopServices(labels);
      return Value();
    });
  }
  if (selector == "startServices:") {
    return withLabels(selector, argument, [this](const Array& labels) {
      startServices(labels);
      return Value();
    });
  }
  if (selector == "registerClient:") {
    const auto client = proxyIn(argument);
    if (!client && !argument.isNil()) return raiseInvalidArgument(selector, "a proxy", argument);
    registerClient(client);
    return Value();
  }
  return std::unexpected(NSException{
      kNSInvalidArgumentException,
      stringWithFormat("-[ORBServiceManager %@]: unrecognized selector sent to instance", selector),
      {}});
}

bool ORBServiceManager::connection(NSConnection& parent, NSConnection& shouldMakeNewConnection) {
  return connectionAuthenticator_->connection(parent, shouldMakeNewConnection);
}

Data ORBServiceManager::authenticationDataForComponents(const Array& components) {
  return connectionAuthenticator_->authenticationDataForComponents(components);
}

bool ORBServiceManager::authenticateComponents(const Array& components, const Data& withData) {
  return connectionAuthenticator_->authenticateComponents(components, withData);
}
