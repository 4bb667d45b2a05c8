#include "ServiceManager/ServiceManager/UserInterfaceServer.h"

#include <utility>

#include "ServiceManager/ServiceManager/ChangeRequests.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

namespace {

ORBServiceManager::ValueAnswer answering(MessageReply reply) {
  return [reply = std::move(reply)](Value answer) mutable { reply.answer(std::move(answer)); };
}

}  // namespace

void UserInterfaceServer::takeMessage(std::string_view selector, const Array& arguments,
                                      MessageReply reply) {
  const ServerMessage message{ORBServiceManager::kClassName, selector, arguments};
  if (selector == "pidForService:") {
    return message.withLabel(std::move(reply), [this](Label label, MessageReply to) {
      manager_.pidForService(label, answering(std::move(to)));
    });
  }
  if (selector == "lastExitStatusForService:") {
    return message.withLabel(std::move(reply), [this](Label label, MessageReply to) {
      manager_.lastExitStatusForService(label, answering(std::move(to)));
    });
  }
  reply.answer(answerTo(message));
}

MessageResult UserInterfaceServer::answerTo(const ServerMessage& message) {
  const std::string_view selector = message.selector;
  if (selector == "services") return manager_.services();
  if (selector == "stopServices:") {
    return message.withLabels([this](const Array& labels) -> MessageResult {
      if (auto refusal = changes_.refusal()) return std::unexpected(*std::move(refusal));
      manager_.stopServices(labels);
      return Value();
    });
  }
  if (selector == "startServices:") {
    return message.withLabels([this](const Array& labels) -> MessageResult {
      if (auto refusal = changes_.refusal()) return std::unexpected(*std::move(refusal));
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
