#include "Platform/Linux/Peers/MemoryRelief.h"

#include <malloc.h>

namespace platform {

MemoryRelief::MemoryRelief(RunLoop& loop, PeerAccounts& accounts) {
  accounts.setReliefHandler([&loop, weak = std::weak_ptr(pending_)] {
    const auto alive = weak.lock();
    if (!alive) return;
    loop.post([&loop, weak] {
      const auto pending = weak.lock();
      if (!pending) return;
      pending->timer = loop.startTimer(kDelay, RunLoop::Repeat::kOnce, [] { ::malloc_trim(0); });
    });
  });
}

}  // namespace platform
