#include "Platform/Messages/NSProtocolChecker.h"

#include "Platform/Texts/StringFormat.h"

namespace platform {

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
    return raised(kNSInvalidArgumentException,
                  stringWithFormat("-[%@ %@]: unrecognized selector", className(), selector));
  if (arguments.size() != method->argumentCount())
    return raised(kNSInvalidArgumentException,
                  stringWithFormat("-[%@ %@]: %lu arguments", className(), selector,
                                   static_cast<unsigned long>(arguments.size())));
  if (target_ == nullptr)
    return raised(kNSInvalidArgumentException,
                  stringWithFormat("-[%@ %@]: no target", className(), selector));
  return target_->receiveMessage(selector, arguments);
}

}  // namespace platform
