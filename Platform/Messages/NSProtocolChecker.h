#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"
#include "Platform/Messages/Protocol.h"

namespace platform {

// Stands before an object of this program and lets through only the messages of one protocol.
class NSProtocolChecker final : public NSProxy {
 public:
  // Both outlive this; without a target it only answers questions about the protocol, and a message
  // raises NSInvalidArgumentException. Without a protocol no message is let through.
  NSProtocolChecker(MessageReceiver* target, const Protocol* protocol)
      : target_(target), protocol_(protocol) {}

  const Protocol* protocol() const { return protocol_; }

  // The protocol's method of that selector; null where it has none.
  const MethodDescription* methodSignatureForSelector(std::string_view selector) const;
  bool respondsToSelector(std::string_view selector) const {
    return methodSignatureForSelector(selector) != nullptr;
  }

  std::string_view className() const override { return "NSProtocolChecker"; }
  bool conformsToProtocol(std::string_view protocolName) const override;
  MessageResult sendMessage(std::string_view selector, const Array& arguments) const override;

 private:
  MessageReceiver* target_;
  const Protocol* protocol_;
};

}  // namespace platform
