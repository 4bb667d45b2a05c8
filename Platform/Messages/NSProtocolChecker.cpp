#include "Platform/Messages/NSProtocolChecker.h"

#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

std::unexpected<NSException> invalidArgument(std::string reason) {
  return std::unexpected(NSException{kNSInvalidArgumentException, std::move(reason), {}});
}

}  // namespace

const MethodDescription* NSProtocolChecker::methodSignatureForSelector(
    std::string_view selector) const {
  return protocol_ == nullptr ? nullptr : protocol_->method(selector);
}

bool NSProtocolChecker::conformsToProtocol(std::string_view protocolName) const {
  return protocol_ != nullptr && protocol_->name() == protocolName;
}

MessageResult NSProtocolChecker::sendMessage(std::string_view selector,
                                             const Array& arguments) const {
  const MethodDescription* method = methodSignatureForSelector(selector);
  if (method == nullptr)
    return invalidArgument(
        stringWithFormat("-[%@ %@]: unrecognized selector", className(), selector));
  if (arguments.size() != method->argumentCount())
    return invalidArgument(stringWithFormat("-[%@ %@]: %lu arguments", className(), selector,
                                            static_cast<unsigned long>(arguments.size())));
  if (target_ == nullptr)
    return invalidArgument(stringWithFormat("-[%@ %@]: no target", className(), selector));
  return target_->receiveMessage(selector, arguments);
}

}  // namespace platform
