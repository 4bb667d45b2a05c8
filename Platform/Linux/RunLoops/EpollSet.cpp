#include "Platform/Linux/RunLoops/EpollSet.h"

#include <algorithm>
#include <array>
#include <string>

#include <sys/epoll.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

ErrorCode codeOfEpollError(int number) {
  switch (number) {
    case EPERM:  // Descriptors of its kind can't be waited for.
    case EEXIST:
    case EBADF:
    case EINVAL:
    case ELOOP:
      return ErrorCode::kInvalid;
    case ENOSPC:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
      return ErrorCode::kExhausted;
    default:
      return ErrorCode::kSystem;
  }
}

}  // namespace

Result<EpollSet> EpollSet::create() {
  UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
  if (!epoll) return std::unexpected(systemError("epoll_create1", codeOfEpollError(errno)));
  return EpollSet(std::move(epoll));
}

Result<void> EpollSet::add(Descriptor descriptor, std::uint32_t events, std::uint64_t id) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
    return std::unexpected(systemError("waiting for descriptor " + std::to_string(descriptor),
                                       codeOfEpollError(errno)));
  }
  ++size_;
  return {};
}

void EpollSet::remove(Descriptor descriptor) {
  // It fails only if the descriptor was closed too early, and then it has left the set.
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
  --size_;
}

std::span<std::uint64_t> EpollSet::ready(std::span<std::uint64_t> room) const {
  if (size_ == 0) return {};
  std::array<epoll_event, 64> events;
  const std::size_t limit = std::min(room.size(), events.size());
  const int count = retryOnInterrupt(
      [&] { return ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(limit), 0); });
  if (count <= 0) return {};
  for (int i = 0; i < count; ++i) room[i] = events[i].data.u64;
  return room.first(static_cast<std::size_t>(count));
}

}  // namespace platform
