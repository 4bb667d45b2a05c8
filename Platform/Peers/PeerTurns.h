#pragma once

#include <cstdint>
#include <deque>
#include <functional>
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

  // Returns whether it did anything. If not, it does not count: the next one follows at once. So
  // the turns of connections that have ended delay nobody.
  using Turn = std::move_only_function<bool()>;

  // Calls `turn` on the loop, after earlier turns of the same user.
  void request(std::uint32_t user, Turn turn);

 private:
  void post();
  void takeNext();
  Turn next();

  RunLoop& loop_;
  const std::uint32_t ownUser_;
  bool isPosted_ = false;
  bool wasPrivileged_ = false;  // the last turn
  std::uint32_t lastUser_ = 0;  // of the last turn of others
  std::deque<Turn> privileged_;
  std::map<std::uint32_t, std::deque<Turn>> others_;  // none is empty
};

}  // namespace platform
