#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "Platform/Peers/PeerLimits.h"
#include "Platform/Values/Value.h"

namespace platform {

// Counts, per user, the messages that wait to be served. A user may have as many connections as a
// listener permits, and even a client without permission can fill all their queues. Root and our
// own user have no limit. Any thread may use it.
class WaitingMessages : public std::enable_shared_from_this<WaitingMessages> {
 public:
  // The limits of one user over all connections. Each endpoint is one of our descriptors.
  static constexpr std::size_t kMaxEndpointsPerUser = 1024;
  static constexpr std::size_t kMaxBytesPerUser = 8 * kMaxPeerMemoryFileBytes;

  struct Cost {
    std::size_t bytes = 0;
    std::size_t endpoints = 0;
  };
  // The cost of a message that has arrived.
  static Cost costOf(const Array& arguments);

  // A message's place, held until the message is served.
  class Place {
   public:
    virtual ~Place() = default;
  };
  // Null beyond the limits. The place may outlive this object.
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
