#pragma once

#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace platform {

// While it lives, this thread of root's is an ordinary user in these groups. The other threads stay
// root, so the C library's functions, which change all threads, can't be used.
class AsOrdinaryUser {
 public:
  static constexpr uid_t kUser = 65534;

  explicit AsOrdinaryUser(const std::vector<gid_t>& groups = {}, uid_t user = kUser) {
    EXPECT_EQ(::syscall(SYS_setgroups, groups.size(), groups.data()), 0);
    EXPECT_EQ(::syscall(SYS_setresuid, -1, user, -1), 0);
  }
  AsOrdinaryUser(const AsOrdinaryUser&) = delete;
  AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;
  ~AsOrdinaryUser() {
    EXPECT_EQ(::syscall(SYS_setresuid, -1, 0, -1), 0);
    EXPECT_EQ(::syscall(SYS_setgroups, 0, nullptr), 0);
  }
};

}  // namespace platform
