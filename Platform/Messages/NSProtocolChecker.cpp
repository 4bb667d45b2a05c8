#include "Platform/Messages/NSProtocolChecker.h"

#include <memory>
#include <string>
#include <utility>

#include "Platform/Texts/StringFormat.h"

namespace platform {

const MethodDescription* NSProtocolChecker::methodSignatureForSelector(
    std::string_view selector) const {
  return protocol_ == nullptr ? nullptr : protocol_->method(selector);
}

bool NSProtocolChecker::conformsToProtocol(std::string_view protocolName) const {
  return protocol_ != nullptr && protocol_->name() == protocolName;
}

std::optional<NSException> NSProtocolChecker::refusal(std::string_view selector,
                                                      const Array& arguments) const {
  const auto refused = [](std::string reason) {
    return NSException{kNSInvalidArgumentException, std::move(reason), {}};
  };
  const MethodDescription* method = methodSignatureForSelector(selector);
  if (method == nullptr)
    return refused(stringWithFormat("-[%@ %@]: unrecognized selector", className(), selector));
  if (arguments.size() != method->argumentCount())
    return refused(stringWithFormat("-[%@ %@]: %lu arguments", className(), selector,
                                    static_cast<unsigned long>(arguments.size())));
  if (target_ == nullptr)
    return refused(stringWithFormat("-[%@ %@]: no target", className(), selector));
  return std::nullopt;
}

MessageResult NSProtocolChecker::sendMessage(std::string_view selector,
                                             const Array& arguments) const {
  const auto answer = std::make_shared<std::optional<MessageResult>>();  // shared with the reply
  sendMessageAsync(selector, arguments,
                   MessageReply([answer](MessageResult result) { *answer = std::move(result); }));
  if (*answer) return std::move(**answer);
  return raised(kNSInvalidArgumentException,
                stringWithFormat("-[%@ %@]: the answer comes later", className(), selector));
}

void NSProtocolChecker::sendMessageAsync(std::string_view selector, const Array& arguments,
                                         MessageReply reply) const {
  if (auto refused = refusal(selector, arguments))
    return reply.answer(std::unexpected(std::move(*refused)));
  // Nothing would limit questions that wait, if their sender does not wait for the answers.
  const bool isQuestion =
      methodSignatureForSelector(selector)->kind == MethodDescription::Kind::kTwoWay;
  if (isQuestion && !reply.isWanted()) return;
  target_->takeMessage(selector, arguments, std::move(reply));
}

}  // namespace platform
