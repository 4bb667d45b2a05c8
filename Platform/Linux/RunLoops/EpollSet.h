#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace platform {

// Descriptors that can be asked, without waiting, which of them is ready. They are known by numbers
// of the caller's, never by addresses, since an event may outlive what it was meant for.
class EpollSet {
 public:
  static Result<EpollSet> create();

  // `events` are epoll's. Fails with kInvalid for a descriptor that is closed, can't be waited for
  // (a regular file, a directory) or is in the set, and with kExhausted when there is no room.
  Result<void> add(Descriptor descriptor, std::uint32_t events, std::uint64_t id);
  void remove(Descriptor descriptor);

  // The numbers of ready descriptors, as many as `room` holds; in turn, where they stay ready.
  std::span<std::uint64_t> ready(std::span<std::uint64_t> room) const;

  // Readable while any in the set is ready.
  Descriptor descriptor() const { return epoll_.get(); }

 private:
  explicit EpollSet(UniqueFd epoll) : epoll_(std::move(epoll)) {}

  UniqueFd epoll_;
  std::size_t size_ = 0;
};

}  // namespace platform
