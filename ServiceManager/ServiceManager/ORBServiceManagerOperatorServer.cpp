#include "ServiceManager/ServiceManager/ORBServiceManagerOperatorServer.h"

#include <utility>

#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

namespace {

constexpr char kName[] = "ORBServiceManagerOperatorServer";

}  // namespace

void ORBServiceManagerOperatorServer::takeMessage(std::string_view selector, const Array& arguments,
                                                  MessageReply reply) {
  if (selector != "awaitServices:") return reply.answer(answerTo(selector, arguments));
  const ServerMessage message{kName, selector, arguments};
  const Value labels = message.argument();
  if (!labels.array()) return reply.answer(message.invalidArgument("an array of labels"));
  whenSettled_(*labels.array(),
               [reply = std::move(reply)]() mutable { reply.answer(Value(true)); });
}

MessageResult ORBServiceManagerOperatorServer::answerTo(std::string_view selector,
                                                        const Array& arguments) const {
  const ServerMessage message{kName, selector, arguments};
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
