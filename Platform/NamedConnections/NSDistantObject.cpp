#include "Platform/NamedConnections/NSDistantObject.h"

#include <algorithm>
#include <utility>

#include "Platform/NamedConnections/NSConnection.h"

namespace platform {

NSDistantObject::NSDistantObject(std::shared_ptr<NSConnection> connection, Description description)
    : connection_(std::move(connection)), description_(std::move(description)) {}

NSDistantObject::~NSDistantObject() = default;

bool NSDistantObject::conformsToProtocol(std::string_view protocolName) const {
  return (protocol_ != nullptr && protocol_->name() == protocolName) ||
         std::ranges::find(description_.protocolNames, protocolName) !=
             description_.protocolNames.end();
}

bool NSDistantObject::isOneWay(std::string_view selector) const {
  const MethodDescription* method = protocol_ == nullptr ? nullptr : protocol_->method(selector);
  return method != nullptr && method->kind == MethodDescription::Kind::kOneWay;
}

MessageResult NSDistantObject::sendMessage(std::string_view selector,
                                           const Array& arguments) const {
  // This may be destroyed during the call.
  const std::shared_ptr<NSConnection> connection = connection_;
  if (isOneWay(selector)) return connection->sendOneWay(description_.number, selector, arguments);
  return connection->sendTwoWay(description_.number, selector, arguments);
}

void NSDistantObject::sendMessageAsync(std::string_view selector, const Array& arguments,
                                       MessageReply reply) const {
  const std::shared_ptr<NSConnection> connection = connection_;
  if (isOneWay(selector))
    return reply.answer(connection->sendOneWay(description_.number, selector, arguments));
  connection->sendTwoWayAsync(description_.number, selector, arguments, std::move(reply));
}

std::size_t NSDistantObject::messagesUnderWay() const { return connection_->messagesUnderWay_; }

}  // namespace platform
