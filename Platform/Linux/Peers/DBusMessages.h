#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// The layout of messages between processes in D-Bus messages, so that any D-Bus client can send
// one:
//
//   interface  com.vantor.Peer, any object path (ours is "/")
//   member     the selector with an underscore for each colon; selectors have no underscores
//   two-way    a method call; its reply has one variant, or nothing for nil
//   one-way    a method call with the flag NO_REPLY_EXPECTED, or a signal
//   exception  an error com.vantor.exception.NAME (com.vantor.exception if the name is not valid
//              in D-Bus): reason, name, user info. Any other error is read as its D-Bus name and
//              its first text.
//
// org.freedesktop.DBus.Peer.Ping is answered, too. A message above the size limit is sent as a
// message with the body "ht": a sealed memory file with the whole message in D-Bus's format, whose
// body counts, and the size of that message. A message with endpoints, which are descriptors, is
// never sent in this way.
inline constexpr char kPeerInterface[] = "com.vantor.Peer";

enum class PeerMessageKind { kTwoWay, kOneWay };

struct EncodedMessage {
  UniqueDBusMessage message;
  std::size_t wireBytes = 0;  // on the socket, at most
  std::size_t fileBytes = 0;  // in its memory file
  std::size_t descriptors = 0;
};

// Checks everything first. Fails with kInvalid and names the part that can't be sent.
Result<EncodedMessage> encodeMessage(std::string_view selector, const Array& arguments,
                                     PeerMessageKind kind,
                                     PeerMessageContents contents = PeerMessageContents::kValues);
// The answer to the call with this serial number.
Result<EncodedMessage> encodeAnswer(std::uint32_t serial, const MessageResult& result,
                                    PeerMessageContents contents = PeerMessageContents::kValues);

bool wantsAnswer(DBusMessage* message);

// Decodes a method call or a signal, without the reply object. A larger memory file is refused.
Result<PeerMessage> decodeMessage(DBusMessage* message,
                                  PeerMessageContents contents = PeerMessageContents::kValues,
                                  std::size_t fileLimit = kMaxPeerMemoryFileBytes);
// Decodes a method return or an error. A malformed one gives an NSInvalidArgumentException of ours.
MessageResult decodeAnswer(DBusMessage* message,
                           PeerMessageContents contents = PeerMessageContents::kValues,
                           std::size_t fileLimit = kMaxPeerMemoryFileBytes);

}  // namespace platform
