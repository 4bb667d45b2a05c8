#include "ServiceManager/ServiceManager/ORBServiceManagerOperatorServer.h"

#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

namespace {

MessageResult raiseInvalidOperatorArgument(std::string_view selector, std::string_view why) {
  return std::unexpected(
      NSException{kNSInvalidArgumentException,
                  stringWithFormat("-[ORBServiceManagerOperatorServer %@]: %@", selector, why),
                  {}});
}

}  // namespace

MessageResult ORBServiceManagerOperatorServer::receiveMessage(std::string_view selector,
                                                              const Array& arguments) {
  if (selector == "overview") return manager_.operatorOverview();
  if (selector == "healthRecord") {
    return manager_.healthInfo() ? manager_.healthInfo()->healthRecord() : Value();
  }
  if (selector == "extensions") return Value(manager_.systemExtensions());
  if (selector == "factsOfService:") {
    const Value argument = arguments.empty() ? Value() : arguments.front();
    if (!argument.string()) {
      return raiseInvalidOperatorArgument(
          selector, stringWithFormat("expected a label, got %@",
                                     argument.isNil() ? "nil" : className(argument)));
    }
    return manager_.operatorFactsOfService(*argument.string());
  }
  if (selector == "jobsOfServices:") {
    const Value argument = arguments.empty() ? Value() : arguments.front();
    if (!argument.array()) {
      return raiseInvalidOperatorArgument(
          selector, stringWithFormat("expected an array of labels, got %@",
                                     argument.isNil() ? "nil" : className(argument)));
    }
    return manager_.operatorJobsOfServices(*argument.array());
  }
  return raiseInvalidOperatorArgument(selector, "unrecognized selector sent to instance");
}
