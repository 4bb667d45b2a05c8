#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "Platform/Peers/PeerLimits.h"

namespace platform {

// The cost of a peer for this process.
struct PeerCost {
  std::size_t connections = 0;
  std::size_t descriptors = 0;
  std::size_t bytes = 0;  // of messages that are not whole yet, wait to be served, or to be sent
  std::size_t calls = 0;  // that await our answer

  bool operator==(const PeerCost&) const = default;
};

// One account for each user, and one for all users together, with everything that they take of this
// process: every transport, listener and XPC of a process takes from the same accounts. Root and
// our own user have no limit, so the rest of the process's descriptors and memory is a reserve for
// them. Any thread may use it.
class PeerAccounts : public std::enable_shared_from_this<PeerAccounts> {
 public:
  struct Limits {
    PeerCost user;
    PeerCost all;
  };
  // The limits of PeerLimits.h in a process that may open so many descriptors.
  static Limits limitsFor(std::uint64_t descriptorLimit);

  PeerAccounts(std::uint32_t ownUser, const Limits& limits) : ownUser_(ownUser), limits_(limits) {}

  // The cost of one holder, until it is destroyed. Belongs to one thread at a time. May outlive
  // the accounts' owner.
  class Held {
   public:
    Held(std::shared_ptr<PeerAccounts> accounts, std::uint32_t user)
        : accounts_(std::move(accounts)), user_(user) {}
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() { change({}); }

    // Takes so much instead of what it has now. False beyond a limit; then nothing has changed.
    // Taking less of everything always succeeds.
    bool change(const PeerCost& cost);
    // The bytes that the user may still take; they may be gone a moment later.
    std::size_t bytesLeft() const;

   private:
    const std::shared_ptr<PeerAccounts> accounts_;  // shared with other holders
    const std::uint32_t user_;
    PeerCost cost_;
  };
  // Null beyond a limit.
  std::unique_ptr<Held> take(std::uint32_t user, const PeerCost& cost);

  // The cost of all users together.
  PeerCost taken() const;

  // `relieved` is called, on any thread, when users have given back much of what they had taken.
  // Call it before other threads use the accounts.
  void setReliefHandler(std::function<void()> relieved) { relieved_ = std::move(relieved); }

 private:
  bool isPrivileged(std::uint32_t user) const { return user == 0 || user == ownUser_; }
  bool change(std::uint32_t user, const PeerCost& from, const PeerCost& to);
  bool isRelief();

  const std::uint32_t ownUser_;
  const Limits limits_;
  std::function<void()> relieved_;

  mutable std::mutex mutex_;
  PeerCost all_;
  std::map<std::uint32_t, PeerCost> users_;
  std::size_t most_ = 0;  // the memory of all since the last relief, by a rough estimate
};

}  // namespace platform
