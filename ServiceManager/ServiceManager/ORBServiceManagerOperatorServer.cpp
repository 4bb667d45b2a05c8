#include "ServiceManager/ServiceManager/ORBServiceManagerOperatorServer.h"

#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

MessageResult ORBServiceManagerOperatorServer::receiveMessage(std::string_view selector,
                                                              const Array& arguments) {
  const ServerMessage message{"ORBServiceManagerOperatorServer", selector, arguments};
  if (selector == "overview") return report_.overview();
  if (selector == "healthRecord") return report_.healthRecord();
  if (selector == "extensions") return Value(report_.extensions());
  if (selector == "factsOfService:") {
    const Value label = message.argument();
    if (!label.string()) return message.invalidArgument("a label");
    return report_.factsOfService(*label.string());
  }
  if (selector == "jobsOfServices:") {
    return message.withLabels(
        [this](const Array& labels) { return report_.jobsOfServices(labels); });
  }
  return message.unrecognizedSelector();
}
