#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Messages/NSProxy.h"
#include "Platform/Messages/Protocol.h"

namespace platform {

class NSConnection;

// An object of another program, at the other end of a connection. Messages block for the
// connection's reply time-out at most; once the connection has ended they raise
// NSInvalidSendPortException. Belongs to the connection's thread.
class NSDistantObject final : public NSProxy {
 public:
  // The root object's number.
  static constexpr std::int64_t kRootObject = 0;

  // What the peer says of the object; connections make these.
  struct Description {
    std::int64_t number = kRootObject;
    std::string className;
    std::vector<std::string> protocolNames;
  };
  NSDistantObject(std::shared_ptr<NSConnection> connection, Description description);
  ~NSDistantObject() override;

  // Messages of this protocol's one-way methods are sent and not waited for; without a protocol
  // every message is two-way. `protocol` outlives this.
  void setProtocolForProxy(const Protocol* protocol) { protocol_ = protocol; }

  const std::shared_ptr<NSConnection>& connectionForProxy() const { return connection_; }

  std::string_view className() const override { return description_.className; }
  // By the names that the reference carried, and that of the protocol that was set.
  bool conformsToProtocol(std::string_view protocolName) const override;

  // Exceptions:
  //   NSPortTimeoutException        no answer within the reply time-out; of a one-way message that
  //                                 the peer leaves too much unread
  //   NSInvalidSendPortException    the connection has ended, or the object has
  //   NSInvalidArgumentException    no such method, or an argument that can't travel
  //   any other                     what the object raised
  MessageResult sendMessage(std::string_view selector, const Array& arguments) const override;

 private:
  // Shared: a proxy that is kept keeps its connection.
  std::shared_ptr<NSConnection> connection_;
  Description description_;
  const Protocol* protocol_ = nullptr;
};

}  // namespace platform
