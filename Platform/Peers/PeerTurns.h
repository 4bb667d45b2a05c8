#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// The turns in which the peers of one loop are served, usually by one message each. They go by user
// and not by connection, so a user with many connections is not served more often than others.
// Root and our own user get every second turn. Belongs to the loop's thread.
class PeerTurns : public std::enable_shared_from_this<PeerTurns> {
 public:
  // The loop outlives this.
  PeerTurns(RunLoop& loop, std::uint32_t ownUser) : loop_(loop), ownUser_(ownUser) {}
  PeerTurns(const PeerTurns&) = delete;
  PeerTurns& operator=(const PeerTurns&) = delete;

  // Calls `turn` on the loop, after earlier turns of the same user.
  void request(std::uint32_t user, RunLoop::Callback turn);

 private:
  void post();
  void takeNext();
  RunLoop::Callback next();

  RunLoop& loop_;
  const std::uint32_t ownUser_;
  bool isPosted_ = false;
  bool wasPrivileged_ = false;  // the last turn
  std::uint32_t lastUser_ = 0;  // of the last turn of others
  std::deque<RunLoop::Callback> privileged_;
  std::map<std::uint32_t, std::deque<RunLoop::Callback>> others_;  // none is empty
};

}  // namespace platform
