#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/SystemFacts/SystemInformation_contract.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;

PlatformConfiguration configuration() {
  PlatformConfiguration configuration;
  configuration.kernelRelease = "15.6.0";
  configuration.osVersion = {10, 11, 6};
  return configuration;
}

// A process that reads without end and waits until it is killed. It has executed its program when
// the constructor returns.
class WaitingProcess {
 public:
  explicit WaitingProcess(const std::string& program) {
    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    char name[] = "cat";
    char* arguments[] = {name, nullptr};
    error_ = ::posix_spawn(&process_, program.c_str(), &actions, nullptr, arguments, nullptr);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    writer_ = UniqueFd(input[1]);
  }
  ~WaitingProcess() {
    if (error_ != 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }

  int error() const { return error_; }
  ProcessId process() const { return process_; }
  // Kills it and leaves a zombie.
  void end() {
    ::kill(process_, SIGKILL);
    siginfo_t info;
    ::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOWAIT);
  }

 private:
  pid_t process_ = -1;
  int error_ = 0;
  UniqueFd writer_;
};

class LinuxInformationMachine final : public SystemInformationMachine {
 public:
  LinuxInformationMachine() {
    auto ended = std::make_unique<WaitingProcess>("/bin/cat");
    ended_ = ended->process();
  }

  const SystemInformation& system() override { return system_; }
  ProcessId runningProcess() override { return running_.process(); }
  KernelProcess recordOfRunningProcess() override {
    return {::getpid(), ::getuid(), ::geteuid(), "cat"};
  }
  std::string pathOfRunningProcess() override { return std::filesystem::canonical("/bin/cat"); }
  ProcessId endedProcess() override { return ended_; }

 private:
  LinuxSystemInformation system_{configuration(), "/proc"};
  // It is started before the other ends, so that it can't get the other's number.
  WaitingProcess running_{"/bin/cat"};
  ProcessId ended_ = 0;
};

std::unique_ptr<SystemInformationMachine> makeLinuxMachine() {
  return std::make_unique<LinuxInformationMachine>();
}

INSTANTIATE_TEST_SUITE_P(Linux, SystemInformationContract, testing::Values(&makeLinuxMachine));

class LinuxProcessTest : public testing::Test {
 protected:
  // A copy of `cat` with a name of its own.
  std::string program(const std::string& name) {
    const std::string path = folder_.path(name);
    std::filesystem::copy_file("/bin/cat", path);
    return path;
  }

  TemporaryFolder folder_;
  LinuxSystemInformation system_{configuration(), "/proc"};
};

TEST_F(LinuxProcessTest, ACommandNameMayHoldParenthesesSpacesAndInvalidText) {
  for (const std::string name : {"a) S 1 (b", "(", ") ", "x\ny", "\xff\xfe", "\\"}) {
    const WaitingProcess process(program(name));
    ASSERT_EQ(process.error(), 0);
    const auto record = system_.kernelProcess(process.process());
    ASSERT_TRUE(record && *record) << name;
    EXPECT_EQ((*record)->p_comm, name);
    EXPECT_EQ((*record)->e_ppid, ::getpid()) << name;
  }
}

TEST_F(LinuxProcessTest, ALongCommandNameIsCutAsTheKernelCutsIt) {
  const WaitingProcess process(program("abcdefghijklmnopq"));
  ASSERT_EQ(process.error(), 0);
  EXPECT_EQ(system_.kernelProcess(process.process()).value()->p_comm, "abcdefghijklmno");
}

TEST_F(LinuxProcessTest, AnExecutableThatWasDeletedKeepsItsPath) {
  const std::string path = program("gone");
  const WaitingProcess process(path);
  ASSERT_EQ(process.error(), 0);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_EQ(system_.processPath(process.process()), path);
}

TEST_F(LinuxProcessTest, AnExecutableThatWasReplacedKeepsItsPath) {
  const std::string path = program("updated");
  const WaitingProcess process(path);
  ASSERT_EQ(process.error(), 0);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  program("updated");
  EXPECT_EQ(system_.processPath(process.process()), path);
}

TEST_F(LinuxProcessTest, AnExecutableMayBeCalledDeleted) {
  const std::string path = program("demo (deleted)");
  const WaitingProcess process(path);
  ASSERT_EQ(process.error(), 0);
  EXPECT_EQ(system_.processPath(process.process()), path);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_EQ(system_.processPath(process.process()), path);
}

TEST_F(LinuxProcessTest, ADeletedExecutableDiffersFromAFileCalledDeleted) {
  const std::string path = program("demo");
  const WaitingProcess process(path);
  ASSERT_EQ(process.error(), 0);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  program("demo (deleted)");
  EXPECT_EQ(system_.processPath(process.process()), path);
}

TEST_F(LinuxProcessTest, AZombieHasARecordButNoPath) {
  WaitingProcess process("/bin/cat");
  process.end();
  const auto record = system_.kernelProcess(process.process());
  ASSERT_TRUE(record && *record);
  EXPECT_EQ((*record)->e_ppid, ::getpid());
  EXPECT_EQ(system_.processPath(process.process()), std::nullopt);
}

TEST_F(LinuxProcessTest, AThreadIsNotAProcess) {
  std::thread([&] {
    const ProcessId thread = ::gettid();
    ASSERT_NE(thread, ::getpid());
    const auto record = system_.kernelProcess(thread);
    ASSERT_TRUE(record) << record.error().context;
    EXPECT_FALSE(*record);
    EXPECT_EQ(system_.processPath(thread), std::nullopt);
  }).join();
}

TEST_F(LinuxProcessTest, OurOwnPathIsThatOfTheRunningProgram) {
  EXPECT_EQ(system_.processPath(::getpid()), runningExecutablePath());
  EXPECT_EQ(runningExecutablePath(), std::filesystem::read_symlink("/proc/self/exe").native());
}

// A folder in place of /proc with one process, 70.
class ProcFolderTest : public testing::Test {
 protected:
  ProcFolderTest() {
    proc_.write("stat", "cpu 1\nbtime 1767323045\n");
    proc_.write("70/stat", "70 (demo) S 1 70\n");
    proc_.write("70/status", "Name:\tdemo\nTgid:\t70\nUid:\t501\t0\t0\t0\n");
    link("/usr/sbin/demo");
  }

  void link(const std::string& target) {
    std::filesystem::remove(proc_.path("70/exe"));
    std::filesystem::create_symlink(target, proc_.path("70/exe"));
  }

  TemporaryFolder proc_;
  LinuxSystemInformation system_{configuration(), proc_.path()};
};

TEST_F(ProcFolderTest, ARecordIsReadFromBothFiles) {
  const auto record = system_.kernelProcess(70);
  ASSERT_TRUE(record && *record);
  EXPECT_EQ((*record)->e_ppid, 1);
  EXPECT_EQ((*record)->p_ruid, 501u);
  EXPECT_EQ((*record)->cr_uid, 0u);
  EXPECT_EQ((*record)->p_comm, "demo");
  EXPECT_EQ(system_.processPath(70), "/usr/sbin/demo");
}

TEST_F(ProcFolderTest, AProcessThatEndsWhileItIsReadHasNoRecord) {
  for (const char* file : {"70/status", "70/stat"}) {
    std::filesystem::remove(proc_.path(file));
    const auto record = system_.kernelProcess(70);
    ASSERT_TRUE(record) << record.error().context;
    EXPECT_FALSE(*record);
    EXPECT_EQ(system_.processPath(70), std::nullopt);
  }
}

TEST_F(ProcFolderTest, AMalformedFileIsAnErrorThatNamesTheProcess) {
  proc_.write("70/stat", "70 (demo");
  const auto badStat = system_.kernelProcess(70);
  ASSERT_FALSE(badStat);
  EXPECT_EQ(badStat.error().code, ErrorCode::kInvalid);
  EXPECT_THAT(badStat.error().context, HasSubstr(proc_.path("70")));
  EXPECT_EQ(system_.processPath(70), std::nullopt);

  proc_.write("70/stat", "70 (demo) S 1 70\n");
  proc_.write("70/status", "Uid:\t501\t0\t0\t0\n");
  EXPECT_FALSE(system_.kernelProcess(70));
}

TEST_F(ProcFolderTest, AFileWithoutEndIsReadOnlyAsFarAsNeeded) {
  proc_.write("70/status", "Tgid:\t70\nUid:\t501\t0\t0\t0\nGroups:" + std::string(1 << 20, '1'));
  const auto record = system_.kernelProcess(70);
  ASSERT_TRUE(record) << record.error().context;
  EXPECT_TRUE(*record);
}

TEST_F(ProcFolderTest, AFileThatCanNotBeReadIsAnError) {
  std::filesystem::remove(proc_.path("70/status"));
  std::filesystem::create_directory(proc_.path("70/status"));
  const auto record = system_.kernelProcess(70);
  ASSERT_FALSE(record);
  EXPECT_EQ(record.error().osError, EISDIR);
  std::filesystem::remove_all(proc_.path("70"));
  proc_.write("70", "");
  EXPECT_EQ(system_.kernelProcess(70).error().osError, ENOTDIR);
}

TEST_F(ProcFolderTest, WithoutAProcFileSystemNoProcessCountsAsEnded) {
  const TemporaryFolder empty;
  for (const std::string& folder : {empty.path(), empty.path("missing")}) {
    const LinuxSystemInformation system(configuration(), folder);
    const auto record = system.kernelProcess(70);
    ASSERT_FALSE(record) << folder;
    EXPECT_EQ(record.error().osError, ENOENT);
    EXPECT_FALSE(system.bootTime());
  }
}

TEST_F(ProcFolderTest, ALinkWithoutAFullPathIsRefused) {
  link("(unreachable)/demo");
  EXPECT_EQ(system_.processPath(70), std::nullopt);
  link("/" + std::string(4094, 'a'));
  EXPECT_EQ(system_.processPath(70), "/" + std::string(4094, 'a'));
  std::filesystem::remove(proc_.path("70/exe"));
  EXPECT_EQ(system_.processPath(70), std::nullopt);
}

TEST_F(ProcFolderTest, TheMarkOfADeletedFileIsRemovedOnce) {
  link("/nowhere/demo (deleted)");
  EXPECT_EQ(system_.processPath(70), "/nowhere/demo");
  link("/nowhere/demo (deleted) (deleted)");
  EXPECT_EQ(system_.processPath(70), "/nowhere/demo (deleted)");
  link("/nowhere/demo(deleted)");
  EXPECT_EQ(system_.processPath(70), "/nowhere/demo(deleted)");
}

TEST_F(ProcFolderTest, TheBootTimeIsReadEachTime) {
  EXPECT_EQ(system_.bootTime(), 1767323045);
  proc_.write("stat", "btime 1767323046\n");
  EXPECT_EQ(system_.bootTime(), 1767323046);
}

TEST_F(ProcFolderTest, ABootTimeThatTheClocksConfirmIsReadOnce) {
  const LinuxSystemInformation real(defaultPlatformConfiguration("/"), "/proc");
  const auto seconds = real.bootTime();
  ASSERT_TRUE(seconds);
  // The clocks may be read at both sides of a second.
  bool isRemembered = false;
  for (int i = 0; i < 100 && !isRemembered; ++i) {
    proc_.write("stat", "btime " + std::to_string(*seconds) + "\n");
    ASSERT_EQ(system_.bootTime(), *seconds);
    proc_.write("stat", "btime " + std::to_string(*seconds + 1) + "\n");
    isRemembered = system_.bootTime() == *seconds;
  }
  EXPECT_TRUE(isRemembered);
}

TEST_F(ProcFolderTest, AMalformedBootTimeIsAnErrorThatNamesTheFile) {
  proc_.write("stat", "cpu 1\n");
  const auto seconds = system_.bootTime();
  ASSERT_FALSE(seconds);
  EXPECT_EQ(seconds.error().code, ErrorCode::kInvalid);
  EXPECT_THAT(seconds.error().context, HasSubstr(proc_.path("stat")));
}

}  // namespace
}  // namespace platform
