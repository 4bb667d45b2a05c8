#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace platform {

// While it lives, this process can open no descriptor, or only one at a time.
class DescriptorShortage {
 public:
  enum class Left { kNone, kOne };

  explicit DescriptorShortage(Left left) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    const int next = ::dup(STDIN_FILENO);
    EXPECT_GE(next, 0);
    ::close(next);
    const rlimit limit{static_cast<rlim_t>(left == Left::kOne ? next + 1 : next), before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  DescriptorShortage(const DescriptorShortage&) = delete;
  DescriptorShortage& operator=(const DescriptorShortage&) = delete;
  ~DescriptorShortage() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }

 private:
  rlimit before_{};
};

}  // namespace platform
