#pragma once

#include <csignal>
#include <cstddef>

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace jobhost {

// Lets no file grow beyond a size while it lives: what is written across it is cut short, as on a
// full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::size_t size) {
    handler_ = std::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit limit{size, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before_), 0);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  rlimit before_{};
  sighandler_t handler_;
};

}  // namespace jobhost
