#pragma once

#include <optional>
#include <string_view>

#include "Platform/Messages/NSProxy.h"
#include "Platform/Messages/Protocol.h"

namespace platform {

// Passes only the messages of one protocol on to an object of this program.
class NSProtocolChecker final : public NSProxy {
 public:
  // Both outlive this. Without a target it only answers questions about the protocol, and a message
  // raises NSInvalidArgumentException. Without a protocol no message is passed on.
  NSProtocolChecker(MessageTarget* target, const Protocol* protocol)
      : target_(target), protocol_(protocol) {}

  const Protocol* protocol() const { return protocol_; }

  // The protocol's method for that selector; null if there is none.
  const MethodDescription* methodSignatureForSelector(std::string_view selector) const;
  bool respondsToSelector(std::string_view selector) const {
    return methodSignatureForSelector(selector) != nullptr;
  }

  std::string_view className() const override { return "NSProtocolChecker"; }
  bool conformsToProtocol(std::string_view protocolName) const override;
  // A message of a two-way method whose sender wants no answer is dropped. sendMessage() raises
  // NSInvalidArgumentException, too, if the target has not answered yet.
  MessageResult sendMessage(std::string_view selector, const Array& arguments) const override;
  void sendMessageAsync(std::string_view selector, const Array& arguments,
                        MessageReply reply) const override;

 private:
  // The exception for a message that the target must not get.
  std::optional<NSException> refusal(std::string_view selector, const Array& arguments) const;

  MessageTarget* target_;
  const Protocol* protocol_;
};

}  // namespace platform
