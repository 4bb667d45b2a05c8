#include "Platform/Peers/PeerTurns.h"

#include <utility>

namespace platform {

void PeerTurns::request(std::uint32_t user, Turn turn) {
  const bool isPrivileged = user == 0 || user == ownUser_;
  (isPrivileged ? privileged_ : others_[user]).push_back(std::move(turn));
  post();
}

// One turn at a time: between two of them the loop reads what others have sent.
void PeerTurns::post() {
  if (std::exchange(isPosted_, true)) return;
  loop_.post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->takeNext();
  });
}

void PeerTurns::takeNext() {
  isPosted_ = false;
  while (!privileged_.empty() || !others_.empty()) {
    const bool wasPrivileged = wasPrivileged_;
    const std::uint32_t lastUser = lastUser_;
    Turn turn = next();
    // Before the turn, which may run the loop.
    if (!privileged_.empty() || !others_.empty()) post();
    if (turn()) return;
    wasPrivileged_ = wasPrivileged;
    lastUser_ = lastUser;
  }
}

PeerTurns::Turn PeerTurns::next() {
  wasPrivileged_ = others_.empty() || (!privileged_.empty() && !wasPrivileged_);
  if (wasPrivileged_) {
    Turn turn = std::move(privileged_.front());
    privileged_.pop_front();
    return turn;
  }
  auto user = others_.upper_bound(lastUser_);
  if (user == others_.end()) user = others_.begin();
  lastUser_ = user->first;
  Turn turn = std::move(user->second.front());
  user->second.pop_front();
  if (user->second.empty()) others_.erase(user);
  return turn;
}

}  // namespace platform
