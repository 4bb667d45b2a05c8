#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

// How far the messages of a buffered log have come. A signal handler may read it.
struct LogProgress {
  std::atomic<std::uint64_t> taken = 0;   // messages that the buffer has taken
  std::atomic<std::uint64_t> passed = 0;  // those of them that the sink has written or refused

  // Reads `passed` first, because it never exceeds `taken`.
  std::uint64_t waiting() const {
    const std::uint64_t before = passed.load(std::memory_order_acquire);
    return taken.load(std::memory_order_acquire) - before;
  }
};

}  // namespace platform
