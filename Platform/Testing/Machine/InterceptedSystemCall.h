#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <iterator>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace platform {

// A call that is about to be made.
struct InterceptedCall {
  int nth = 0;  // among those of its number, from 1
  std::array<std::uint64_t, 6> arguments{};

  // The argument as a path. The kernel reads it, because ThreadSanitizer does not know that the
  // thread that makes the call waits.
  std::string pathAt(std::size_t index) const {
    std::array<char, PATH_MAX> path{};
    iovec here{path.data(), path.size() - 1};
    iovec there{reinterpret_cast<void*>(arguments.at(index)), path.size() - 1};
    ::process_vm_readv(::getpid(), &here, 1, &there, 1, 0);
    return path.data();
  }
};

// Runs `body` on a thread of its own. Before each system call of this number there, `before` runs
// on the caller's thread. The call is made if it returns 0, and fails with the errno that it
// returns.
inline void withInterceptedSystemCall(unsigned int number,
                                      const std::function<int(const InterceptedCall& call)>& before,
                                      const std::function<void()>& body) {
  std::promise<int> listener;
  std::thread thread([&] {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
    // A thread that keeps its permissions for good may filter its own calls, whoever its user is.
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    const int descriptor = static_cast<int>(
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
    listener.set_value(descriptor);
    if (descriptor >= 0) body();
  });
  const int calls = listener.get_future().get();
  EXPECT_GE(calls, 0) << "system calls can't be intercepted here";
  for (int nth = 1; calls >= 0; ++nth) {
    // It hangs up when the thread, the only one with the filter, has ended.
    pollfd ready{calls, POLLIN, 0};
    if (::poll(&ready, 1, -1) != 1 || (ready.revents & POLLIN) == 0) break;
    seccomp_notif call{};
    if (::ioctl(calls, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) break;
    seccomp_notif_resp answer{};
    answer.id = call.id;
    InterceptedCall made{nth, {}};
    std::ranges::copy(call.data.args, made.arguments.begin());
    answer.error = -before(made);
    if (answer.error == 0) answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ::ioctl(calls, SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
  thread.join();
  if (calls >= 0) ::close(calls);
}

}  // namespace platform
