#include "ServiceManager/ServiceManager/UserInterfaceServer.h"

#include <utility>

#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/ChangeRequests.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"
#include "ServiceManager/ServiceManager/ServicePages.h"

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
  if (selector == "services") return services(message);
  if (selector == "servicesAfter:") return servicesAfter(message);
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

MessageResult UserInterfaceServer::services(const ServerMessage& message) const {
  Value services = manager_.services();
  const auto measured = peerBodyBytes({services});
  if (measured) return services;
  return raised(kNSInvalidArgumentException,
                stringWithFormat("-[%@ %@]: the services don't fit into one message (%@); "
                                 "\"servicesAfter:\" answers with a part of them",
                                 message.receiver, message.selector, describe(measured.error())));
}

MessageResult UserInterfaceServer::servicesAfter(const ServerMessage& message) const {
  const Value last = message.argument();
  if (!last.string()) return message.invalidArgument("a label");
  const Value services = manager_.services();
  if (!services.dictionary()) return Value(Dictionary());
  auto page = pageOfServices(*services.dictionary(), *last.string());
  if (!page) return message.invalidArgument("the label of a service, or an empty text");
  return Value(*std::move(page));
}
