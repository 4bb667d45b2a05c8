#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace platform {

// Tells without blocking which descriptors are ready. Callers identify descriptors by numbers of
// their own and never by addresses, because an event may outlive its object.
class EpollSet {
 public:
  static Result<EpollSet> create();

  // `events` are those of epoll_ctl(2). Fails with kInvalid if the descriptor is closed, can't be
  // waited for (a regular file, a directory) or is already in the set, and with kExhausted if there
  // is no room.
  Result<void> add(Descriptor descriptor, std::uint32_t events, std::uint64_t id);
  void remove(Descriptor descriptor);

  // The numbers of ready descriptors, at most as many as `room` holds. Descriptors that stay ready
  // take turns.
  std::span<std::uint64_t> ready(std::span<std::uint64_t> room) const;

  // Readable while any descriptor in the set is ready.
  Descriptor descriptor() const { return epoll_.get(); }

 private:
  explicit EpollSet(UniqueFd epoll) : epoll_(std::move(epoll)) {}

  UniqueFd epoll_;
  std::size_t size_ = 0;
};

}  // namespace platform
