#pragma once

#include <csignal>

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace platform {

// While it lives, no file of this process can grow beyond a size. As with a full disk, the system
// writes the part that fits. It also sends SIGXFSZ, whose default action ends the process.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit limit{bytes, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() { EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before_), 0); }

 private:
  rlimit before_{};
};

// The same without the signal, which a full disk does not send.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes) : limit_(bytes) {}
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;
  ~FullDisk() { std::signal(SIGXFSZ, handler_); }

 private:
  const sighandler_t handler_ = std::signal(SIGXFSZ, SIG_IGN);
  const FileSizeLimit limit_;
};

}  // namespace platform
