// A copy that strace makes fail, or kills, at one of its system calls.

#include "Platform/Linux/Files/FileCopy.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::AnyOf;
using testing::ElementsAre;

constexpr char kSource[] = "FILE_COPY_TEST_SOURCE";
constexpr char kDestination[] = "FILE_COPY_TEST_DESTINATION";
constexpr char kResult[] = "FILE_COPY_TEST_RESULT";

// strace runs this program with only this test.
TEST(FileCopyProgram, DISABLED_CopiesTheFilesOfItsEnvironment) {
  const auto copied = overwriteWithCopyOfFile(std::getenv(kSource), std::getenv(kDestination));
  std::ofstream(std::getenv(kResult)) << (copied ? 0 : copied.error().code);
}

class FileCopyTest : public testing::Test {
 protected:
  // A system call of the copy: its name, and its number among the calls of that name.
  struct Call {
    std::string name;
    int number;
  };

  void SetUp() override {
    if (std::system("/usr/bin/strace -o /dev/null /bin/true") != 0) {
      GTEST_SKIP() << "programs can't be traced here (ptrace is not permitted)";
    }
    folder_.write("source", kNew);
    setUpDestination();
  }

  void setUpDestination() {
    std::filesystem::remove_all(folder_.path("below"));
    folder_.write("below/destination", kOld);
  }

  // Copies in a program of its own under strace with these options. Returns the code of its error,
  // "0" if there is none, and "" if the program was killed before.
  std::string copy(const std::string& options) {
    std::filesystem::remove(folder_.path("result"));
    const auto quoted = [](const std::string& text) { return "'" + text + "' "; };
    // The leak checker can't run under strace.
    const std::string command =
        std::string(kSource) + "=" + quoted(folder_.path("source")) + kDestination + "=" +
        quoted(destination_) + kResult + "=" + quoted(folder_.path("result")) +
        "ASAN_OPTIONS=detect_leaks=0 /usr/bin/strace -f -y -e trace=" + kTraced + " -o " +
        quoted(folder_.path("trace")) + options + " " +
        quoted(std::filesystem::read_symlink("/proc/self/exe")) +
        "--gtest_also_run_disabled_tests --gtest_filter='FileCopyProgram.*' >/dev/null 2>&1";
    EXPECT_NE(std::system(command.c_str()), -1);
    return contentOfFile(folder_.path("result"));
  }

  // The calls of a successful copy that concern the new file or its folder.
  std::vector<Call> callsOfACopy() {
    EXPECT_EQ(copy(""), "0");
    std::vector<Call> calls;
    std::map<std::string, int> numbers;
    std::ifstream trace(folder_.path("trace"));
    for (std::string line; std::getline(trace, line);) {
      const std::size_t start = line.find(' ') + 1;  // after the process number
      const std::string name = line.substr(line.find_first_not_of(' ', start));
      const std::string call = name.substr(0, name.find('('));
      const int number = ++numbers[call];
      if (line.find(folder_.path("below")) != line.npos) calls.push_back({call, number});
    }
    setUpDestination();
    return calls;
  }

  static std::string at(const Call& call, const std::string& what) {
    return "-e inject=" + call.name + ":" + what + ":when=" + std::to_string(call.number);
  }

  std::vector<std::string> namesBelow() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path("below"))) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  static constexpr char kTraced[] = "write,fsync,rename,fchown,fchmod,utimensat";
  static constexpr char kOld[] = "the old content";
  static constexpr char kNew[] = "all of the new content";
  const TemporaryFolder folder_;
  const std::string destination_ = folder_.path("below/destination");
};

// The content is on the disk, and other users have access, before the file gets its name.
TEST_F(FileCopyTest, TheContentIsSynchronisedBeforeItIsPutInPlace) {
  std::vector<std::string> names;
  for (const Call& call : callsOfACopy()) names.push_back(call.name);
  EXPECT_THAT(names, ElementsAre("write", "fchown", "fchown", "fchmod", "utimensat", "fsync",
                                 "rename", "fsync"));
}

TEST_F(FileCopyTest, AFailureBeforeTheRenameLeavesOnlyTheOldContent) {
  const std::vector<Call> calls = callsOfACopy();
  ASSERT_EQ(calls.size(), 8u);
  const struct {
    const char* error;
    const char* code;
  } errors[] = {{"ENOSPC", "640"}, {"EROFS", "642"}, {"EIO", "512"}, {"EACCES", "513"}};
  for (const Call& call : {calls[0], calls[5], calls[6]}) {
    for (const auto& [error, code] : errors) {
      EXPECT_EQ(copy(at(call, std::string("error=") + error)), code) << call.name << " " << error;
      EXPECT_EQ(contentOfFile(destination_), kOld) << call.name << " " << error;
      EXPECT_THAT(namesBelow(), ElementsAre("destination")) << call.name << " " << error;
    }
  }
}

TEST_F(FileCopyTest, AFailureToSetAttributesKeepsTheCopy) {
  const std::vector<Call> calls = callsOfACopy();
  ASSERT_EQ(calls.size(), 8u);
  // A failure to synchronise the folder has no effect.
  EXPECT_EQ(copy(at(calls[7], "error=EIO")), "0");
  for (std::size_t i = 1; i <= 4; ++i) {
    setUpDestination();
    EXPECT_EQ(copy(at(calls[i], "error=EPERM")), "513") << calls[i].name;
    EXPECT_EQ(contentOfFile(destination_), kNew) << calls[i].name;
    EXPECT_THAT(namesBelow(), ElementsAre("destination")) << calls[i].name;
  }
}

TEST_F(FileCopyTest, AKilledCopyLeavesTheOldOrTheNewContent) {
  for (const Call& call : callsOfACopy()) {
    // After and before the call.
    for (const char* what : {"signal=SIGKILL", "error=EIO:signal=SIGKILL"}) {
      setUpDestination();
      EXPECT_EQ(copy(at(call, what)), "") << call.name << " " << what;
      EXPECT_THAT(contentOfFile(destination_), AnyOf(kOld, kNew)) << call.name << " " << what;
    }
  }
}

}  // namespace
}  // namespace platform
