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

MessageResult NSDistantObject::sendMessage(std::string_view selector,
                                           const Array& arguments) const {
  const MethodDescription* method = protocol_ == nullptr ? nullptr : protocol_->method(selector);
  // This may be destroyed during the call.
  const std::shared_ptr<NSConnection> connection = connection_;
  if (method != nullptr && method->kind == MethodDescription::Kind::kOneWay)
    return connection->sendOneWay(description_.number, selector, arguments);
  return connection->sendTwoWay(description_.number, selector, arguments);
}

}  // namespace platform
