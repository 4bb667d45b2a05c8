#pragma once

#include <chrono>
#include <memory>

#include "Platform/Peers/PeerAccounts.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"

namespace platform {

// Gives free memory back to the system after users have taken much of it. The allocator would keep
// what lies between blocks that are still used, after a flood for the rest of the process's life.
class MemoryRelief {
 public:
  // By then the connections of a flood have been cleaned up.
  static constexpr Duration kDelay = std::chrono::seconds(2);

  // The loop outlives this. At most one per process.
  MemoryRelief(RunLoop& loop, PeerAccounts& accounts);

 private:
  struct Pending {
    std::unique_ptr<RunLoopHandle> timer;
  };
  const std::shared_ptr<Pending> pending_ = std::make_shared<Pending>();
};

}  // namespace platform
