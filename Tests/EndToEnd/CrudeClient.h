#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Peers/PeerTransport.h"
#include "Tests/EndToEnd/DaemonRoot.h"

namespace platform {

// A peer that builds its messages by hand, so that it can break the rules.
class CrudeClient {
 public:
  static constexpr char kAuthenticate[] = "NSConnectionAuthenticate:";

  // It connects and does nothing more.
  CrudeClient(DaemonRoot& root, std::string_view server);

  PeerConnection& peer() { return *peer_; }
  // Shows this token, and returns the answer.
  MessageResult showToken(const Data& token);
  // Shows the right token.
  void authenticate();
  // Registers as a client that gets notifications, with an object of these protocols.
  void registerClient(const Array& protocols);

  // The answer to each message that it gets; std::nullopt makes it hang up.
  void answerWith(std::optional<MessageResult> answer);
  bool hasEnded() const { return hasEnded_; }

 private:
  DaemonRoot& root_;
  std::unique_ptr<PeerConnection> peer_;
  std::optional<MessageResult> answer_;
  bool hasEnded_ = false;
};

}  // namespace platform
