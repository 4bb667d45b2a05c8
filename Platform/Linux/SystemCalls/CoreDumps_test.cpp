#include "Platform/Linux/SystemCalls/CoreDumps.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

// Runs `call` in a child, so that the test program itself stays unchanged.
int processStatusOf(int (*call)()) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(call());
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(CoreDumpsTest, AreForbiddenOnlyForThisProgram) {
  EXPECT_EQ(processStatusOf([] { return forbidCoreDumps() ? ::prctl(PR_GET_DUMPABLE) : 99; }), 0);
  EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 1);
}

// Crashes in a folder where a core dump would be written. Returns whether one was found.
bool leavesCoreDump(const std::string& folder, bool isForbidden) {
  const pid_t child = ::fork();
  if (child == 0) {
    rlimit limit{};
    ::getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 1 << 20);
    ::setrlimit(RLIMIT_CORE, &limit);
    std::signal(SIGABRT, SIG_DFL);
    if (::chdir(folder.c_str()) != 0 || (isForbidden && !forbidCoreDumps())) ::_exit(1);
    std::abort();
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status)) << status;
  return WCOREDUMP(status) || !std::filesystem::is_empty(folder);
}

TEST(CoreDumpsTest, ACrashLeavesNone) {
  const TemporaryFolder folder;
  EXPECT_FALSE(leavesCoreDump(folder.path(), true));
  const TemporaryFolder another;
  if (!leavesCoreDump(another.path(), false)) GTEST_SKIP() << "nothing leaves a core dump here";
}

// Another unprivileged process of the same user can't read the memory.
TEST(CoreDumpsTest, MemoryIsNotReadableFromOutside) {
  EXPECT_EQ(processStatusOf([] {
              if (::geteuid() == 0 && (::setresgid(12345, 12345, 12345) != 0 ||
                                       ::setresuid(12345, 12345, 12345) != 0)) {
                return 99;
              }
              if (!forbidCoreDumps()) return 98;
              const pid_t keeper = ::getpid();
              const pid_t reader = ::fork();
              if (reader == 0) {
                // The child is a copy of this program and not dumpable either; an executed program
                // is.
                ::prctl(PR_SET_DUMPABLE, 1);
                const std::string memory = "/proc/" + std::to_string(keeper) + "/mem";
                ::_exit(::access(memory.c_str(), R_OK) == 0 ? 1 : 0);
              }
              int status = -1;
              ::waitpid(reader, &status, 0);
              return WIFEXITED(status) ? WEXITSTATUS(status) : 97;
            }),
            0);
}

}  // namespace
}  // namespace platform
