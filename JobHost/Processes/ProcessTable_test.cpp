#include "JobHost/Processes/ProcessTable.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/State/StateRecord.h"

namespace jobhost {
namespace {

using testing::Contains;

// A process with one of the numbers from `first` on, or 0 if the system does not let us choose.
pid_t forkWithNumberFrom(pid_t first) {
  for (pid_t number = first; number < first + 100; ++number) {
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
    arguments.set_tid_size = 1;
    const long child = ::syscall(SYS_clone3, &arguments, sizeof arguments);
    if (child == 0) {
      for (;;) ::pause();
    }
    if (child > 0) return static_cast<pid_t>(child);
    if (errno != EEXIST) return 0;
  }
  return 0;
}

std::set<std::string> numbersOfProcesses() {
  std::set<std::string> numbers;
  EXPECT_TRUE(eachProcess([&](std::string_view number, const std::string&) {
    numbers.emplace(number);
    return true;
  }));
  return numbers;
}

TEST(ProcessTable, HasEachProcessWhateverItsNumberBeginsWith) {
  // Some systems hide the processes of other users.
  if (::access("/proc/1", F_OK) == 0) {
    EXPECT_THAT(numbersOfProcesses(), Contains("1"));
  }
  EXPECT_THAT(numbersOfProcesses(), Contains(std::to_string(::getpid())));
  const pid_t child = forkWithNumberFrom(9000);
  if (child == 0) GTEST_SKIP() << "no process can have a chosen number here";
  EXPECT_THAT(numbersOfProcesses(), Contains(std::to_string(child)));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST(ProcessTable, AProcessThatBeginsNowHasTheTicksOfNow) {
  const std::uint64_t before = startTicksNow();
  const pid_t child = ::fork();
  if (child == 0) {
    for (;;) ::pause();
  }
  const auto stat = statOf(std::to_string(child));
  const std::uint64_t after = startTicksNow();
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ASSERT_TRUE(stat);
  const std::uint64_t ticks = startTicksIn(stat->data(), stat->size());
  EXPECT_GE(ticks, before);
  EXPECT_LE(ticks, after);
}

// The fields of a "stat" file, with these values for the size of its memory and for the end of its
// environment.
std::string statWith(const std::string& memory, const std::string& environment) {
  std::string stat = "7 (a) b) S";
  for (int field = 4; field <= 52; ++field)
    stat += ' ' + (field == 23 ? memory : field == 51 ? environment : std::to_string(field));
  return stat + '\n';
}

TEST(ProcessTable, AProcessWithMemoryButWithoutAnEnvironmentExecutesAProgram) {
  EXPECT_TRUE(isExecuting(statWith("4096", "0")));
  EXPECT_FALSE(isExecuting(statWith("4096", "8192")));
  EXPECT_FALSE(isExecuting(statWith("0", "0")));
  EXPECT_FALSE(isExecuting("7 (a) S 1 2"));
  EXPECT_FALSE(isExecuting(""));
  EXPECT_FALSE(isExecuting(statOf(std::to_string(::getpid())).value_or("")));
}

}  // namespace
}  // namespace jobhost
