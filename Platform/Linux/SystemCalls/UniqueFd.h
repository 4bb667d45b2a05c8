#pragma once

#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>

#include <unistd.h>

namespace platform {

// Owns a file descriptor.
class [[nodiscard]] UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  explicit operator bool() const noexcept { return fd_ >= 0; }
  int get() const noexcept { return fd_; }
  [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
  void reset(int fd = -1) noexcept {
    const int old = std::exchange(fd_, fd);
    // Linux frees the number even when close() reports EINTR, so a retry could close a descriptor
    // opened meanwhile. EBADF means that somebody else closed ours: stop before more is damaged.
    if (old >= 0 && ::close(old) != 0 && errno == EBADF) std::abort();
  }

 private:
  int fd_ = -1;
};

// A path to the open file of the descriptor, valid in this process while the descriptor is open.
inline std::string pathOfDescriptor(const UniqueFd& descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor.get());
}

}  // namespace platform
