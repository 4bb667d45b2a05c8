#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Messages/NSProxy.h"
#include "Platform/Messages/Protocol.h"

namespace platform {

class NSConnection;

// An object of another program, at the other end of a connection. Messages block for at most the
// connection's reply time-out. After the connection has ended they raise
// NSInvalidSendPortException. Belongs to the connection's thread.
class NSDistantObject final : public NSProxy {
 public:
  // The root object's number.
  static constexpr std::int64_t kRootObject = 0;

  // The peer's description of the object; connections make these.
  struct Description {
    std::int64_t number = kRootObject;
    std::string className;
    std::vector<std::string> protocolNames;
  };
  NSDistantObject(std::shared_ptr<NSConnection> connection, Description description);
  ~NSDistantObject() override;

  // Messages of this protocol's one-way methods are sent without waiting; without a protocol every
  // message is two-way. `protocol` outlives this.
  void setProtocolForProxy(const Protocol* protocol) { protocol_ = protocol; }

  const std::shared_ptr<NSConnection>& connectionForProxy() const { return connection_; }

  std::string_view className() const override { return description_.className; }
  // Checks the names in the reference, and the protocol that was set.
  bool conformsToProtocol(std::string_view protocolName) const override;

  // Exceptions:
  //   NSPortTimeoutException        no answer within the reply time-out; for a one-way message, the
  //                                 peer leaves too much unread
  //   NSInvalidSendPortException    the connection or the object has ended
  //   NSInvalidArgumentException    no such method, or an argument that can't be sent
  //   any other                     the exception that the object raised
  MessageResult sendMessage(std::string_view selector, const Array& arguments) const override;
  void sendMessageAsync(std::string_view selector, const Array& arguments,
                        MessageReply reply) const override;
  std::size_t messagesUnderWay() const override;

 private:
  bool isOneWay(std::string_view selector) const;

  // Shared: a proxy keeps its connection alive.
  std::shared_ptr<NSConnection> connection_;
  Description description_;
  const Protocol* protocol_ = nullptr;
};

}  // namespace platform
