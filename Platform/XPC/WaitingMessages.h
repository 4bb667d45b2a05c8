#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "Platform/Peers/PeerLimits.h"
#include "Platform/Values/Value.h"

namespace platform {

// What the messages that wait to be served cost us, user by user: a user may have as many
// connections as a listener lets him, and whoever has no right to be served can fill all their
// queues. Root and our own user are not bound. Any thread.
class WaitingMessages : public std::enable_shared_from_this<WaitingMessages> {
 public:
  // Of one user, over all connections: each endpoint is a descriptor of ours.
  static constexpr std::size_t kMaxEndpointsPerUser = 1024;
  static constexpr std::size_t kMaxBytesPerUser = 8 * kMaxPeerMemoryFileBytes;

  struct Cost {
    std::size_t bytes = 0;
    std::size_t endpoints = 0;
  };
  // Of a message that has arrived.
  static Cost costOf(const Array& arguments);

  // A message's place among them, until it is served.
  class Place {
   public:
    virtual ~Place() = default;
  };
  // Null where that would be too much. May outlive this.
  std::unique_ptr<Place> take(std::uint32_t user, const Cost& cost);

 private:
  class Taken;

  struct Held {
    std::size_t messages = 0;
    Cost cost;
  };

  std::mutex mutex_;
  std::map<std::uint32_t, Held> held_;
};

}  // namespace platform
