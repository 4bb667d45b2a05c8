#pragma once

#include <cerrno>
#include <cstddef>
#include <functional>
#include <thread>

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

namespace platform {

// Runs `body` on a thread of its own, where each system call of this number fails with `error`.
inline void withFailingSystemCall(unsigned int number, unsigned int error,
                                  const std::function<void()>& body) {
  std::thread([&] {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(program), program};
    // A thread that keeps its rights for good may filter its own calls, whoever it is.
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0) << errno;
    body();
  }).join();
}

}  // namespace platform
