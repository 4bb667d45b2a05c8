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

// How messages between processes stand in D-Bus messages, so that any D-Bus client can send one:
//
//   interface  com.vantor.Peer, any object path (ours is "/")
//   member     the selector with an underscore for each colon: a selector has no underscores, so
//              this has one meaning only
//   two-way    a method call; its reply has one variant, or nothing for nil
//   one-way    a method call that wants no reply, or a signal
//   exception  an error com.vantor.exception.NAME (com.vantor.exception where that can't be a
//              D-Bus name): reason, name, user info. Of any other error the D-Bus name and the
//              first text count.
//
// org.freedesktop.DBus.Peer.Ping is answered too. A message that would be too large has the body
// "ht" instead (none that carries an endpoint, a descriptor too, is moved so): a sealed memory file
// with the whole message as D-Bus lays it out, of which the body counts, and that message's size.
inline constexpr char kPeerInterface[] = "com.vantor.Peer";

enum class PeerMessageKind { kTwoWay, kOneWay };

struct EncodedMessage {
  UniqueDBusMessage message;
  std::size_t wireBytes = 0;  // on the socket, at most
  std::size_t fileBytes = 0;  // in its memory file
  std::size_t descriptors = 0;
};

// Everything is checked first: kInvalid says what can't travel.
Result<EncodedMessage> encodeMessage(std::string_view selector, const Array& arguments,
                                     PeerMessageKind kind,
                                     PeerMessageContents contents = PeerMessageContents::kValues);
// The answer to the call with this serial number.
Result<EncodedMessage> encodeAnswer(std::uint32_t serial, const MessageResult& result,
                                    PeerMessageContents contents = PeerMessageContents::kValues);

bool wantsAnswer(DBusMessage* message);

// A method call or a signal. Without the reply object.
Result<PeerMessage> decodeMessage(DBusMessage* message,
                                  PeerMessageContents contents = PeerMessageContents::kValues);
// A method return or an error. What can't be read is an NSInvalidArgumentException of ours.
MessageResult decodeAnswer(DBusMessage* message,
                           PeerMessageContents contents = PeerMessageContents::kValues);

}  // namespace platform
