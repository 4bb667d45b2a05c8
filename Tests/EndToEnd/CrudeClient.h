#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Peers/PeerTransport.h"
#include "Tests/EndToEnd/DaemonRoot.h"

namespace platform {

// A peer that puts its messages together by hand, so that it can break the rules.
class CrudeClient {
 public:
  static constexpr char kAuthenticate[] = "NSConnectionAuthenticate:";

  // Connected, and no more than that.
  CrudeClient(DaemonRoot& root, std::string_view server);

  PeerConnection& peer() { return *peer_; }
  // Shows this; the answer.
  MessageResult showToken(const Data& token);
  // Shows the right one.
  void authenticate();
  // As a client that is to be told, with an object of these protocols.
  void registerClient(const Array& protocols);

  // What it answers to each message that it gets; it hangs up where there is nothing.
  void answerWith(std::optional<MessageResult> answer);
  bool hasEnded() const { return hasEnded_; }

 private:
  DaemonRoot& root_;
  std::unique_ptr<PeerConnection> peer_;
  std::optional<MessageResult> answer_;
  bool hasEnded_ = false;
};

}  // namespace platform
