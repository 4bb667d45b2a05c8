#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/Tracing.h"

namespace platform {
namespace {

class KilledCopyTest : public testing::Test {
 protected:
  // Copies, and is killed at its system call of this name and number. Returns whether it ended
  // before that.
  static bool copyKilledAt(const std::string& call, int number, const std::string& source,
                           const std::string& destination) {
    const std::string kill = "inject=" + call + ":signal=SIGKILL:when=" + std::to_string(number);
    ChildProgram program(
        {"/usr/bin/strace", "-o", "/dev/null", "-e", kill, COPY_PROGRAM, source, destination}, {});
    const ExitStatus status = program.waitForExit();
    if (status.kind == ExitStatus::Kind::kSignalled) return false;
    EXPECT_EQ(status.number, 0) << program.errors();
    return true;
  }

  TemporaryFolder folder_;
};

TEST_F(KilledCopyTest, TheDestinationHasTheOldOrTheNewContent) {
  if (!canTrace()) GTEST_SKIP() << "programs can't be traced here (ptrace is not permitted)";
  const std::string fresh(300'000, 'n');
  const std::string stale(1000, 'o');
  const std::string source = folder_.write("source", fresh);
  ASSERT_EQ(::chmod(source.c_str(), 0644), 0);
  int keptOld = 0;
  int gotNew = 0;
  for (const char* call : {"openat", "fstat,newfstatat", "read", "write", "fsync", "rename",
                           "fchown", "fchmod", "utimensat", "close", "exit_group"}) {
    bool ended = false;
    for (int number = 1; !ended; ++number) {
      SCOPED_TRACE(std::string(call) + " " + std::to_string(number));
      const std::string destination = folder_.write("folder/destination", stale);
      ended = copyKilledAt(call, number, source, destination);
      const std::string content = contentOfFile(destination);
      ASSERT_TRUE(content == stale || content == fresh);
      ++(content == stale ? keptOld : gotNew);
      if (content == stale) continue;
      struct stat status{};
      ASSERT_EQ(::stat(destination.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 07777, 0644u);
    }
  }
  // Nearly everything comes before the rename; each call's last try is a whole copy.
  EXPECT_GT(keptOld, 10);
  EXPECT_GT(gotNew, 10);
}

}  // namespace
}  // namespace platform
