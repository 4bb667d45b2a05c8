// Processes of other users with the mark of a job, which everybody can compute.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/JobHostBed_contract.h"
#include "JobHost/Processes/MarkOwner.h"
#include "Platform/Linux/SystemFacts/ProcessRecord.h"
#include "Platform/Testing/Machine/DescriptorShortage.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::ProcessId;
using platform::UniqueFd;

constexpr platform::UserId kStranger = 65533;

// A program of another user that runs until this is destroyed.
class StrangersProgram {
 public:
  // It has the mark of the label's leader.
  StrangersProgram(const std::string& program, std::uint64_t host, const std::string& label) {
    process_ = ::fork();
    if (process_ == 0) {
      std::string variable = jobMarkVariable({host, 1, label, ::getpid()});
      std::string name = "sleep";
      std::string time = "1000";
      char* const arguments[] = {name.data(), time.data(), nullptr};
      char* const environment[] = {variable.data(), nullptr};
      if (::syscall(SYS_setresuid, kStranger, kStranger, kStranger) == 0) {
        ::execve(program.c_str(), arguments, environment);
      }
      ::_exit(1);
    }
    pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
  }
  StrangersProgram(const StrangersProgram&) = delete;
  StrangersProgram& operator=(const StrangersProgram&) = delete;
  ~StrangersProgram() {
    ::syscall(SYS_pidfd_send_signal, pidfd_.get(), SIGKILL, nullptr, 0);
    ::waitid(P_PIDFD, static_cast<id_t>(pidfd_.get()), nullptr, WEXITED);
  }

  ProcessId process() const { return process_; }
  std::string number() const { return std::to_string(process_); }
  bool isAlive() const {
    pollfd entry{pidfd_.get(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 0;
  }

 private:
  ProcessId process_ = 0;
  UniqueFd pidfd_;
};

class JobHostForgedMarks : public RealJobHostTest, public testing::WithParamInterface<bool> {
 protected:
  JobHostForgedMarks() : RealJobHostTest(GetParam() ? Groups::kIfPossible : Groups::kNone) {}

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    ASSERT_EQ(::chmod(root_.path().c_str(), 0755), 0);
    struct statvfs status{};
    ASSERT_EQ(::statvfs(root_.path().c_str(), &status), 0);
    if ((status.f_flag & ST_NOSUID) != 0) GTEST_SKIP() << "no program gains rights in this folder";
    std::filesystem::copy_file(BECOME_ROOT_PROGRAM, rootsProgram_);
    ASSERT_EQ(::chmod(rootsProgram_.c_str(), 04755), 0);
  }

  std::uint64_t host() const { return hostMark(root_.path(), *readBootId()); }

  void runUntil(const std::function<bool()>& holds) {
    const auto poll = loop().startTimer(1ms, platform::RunLoop::Repeat::kEvery, [&] {
      if (holds()) loop().stop();
    });
    const auto deadline =
        loop().startTimer(kTestDeadline, platform::RunLoop::Repeat::kOnce, [&] { loop().stop(); });
    loop().run();
    EXPECT_TRUE(holds());
  }
  // The kernel shows the environment of a program a moment after it was executed.
  void awaitMark(const StrangersProgram& program) {
    runUntil([&] { return readJobMark(program.number()).mark.has_value(); });
  }

  // The same for a program that becomes root.
  void awaitRoot(const StrangersProgram& program) {
    awaitMark(program);
    runUntil([&] {
      const auto status = platform::parseProcessStatus(
          platform::contentOfFile("/proc/" + program.number() + "/status"));
      return status && status->realUser == 0;
    });
  }

  // A program with the set-user-ID bit.
  const std::string rootsProgram_ = root_.path("become_root");
};
INSTANTIATE_TEST_SUITE_P(, JobHostForgedMarks, testing::Bool());

TEST_P(JobHostForgedMarks, TakeNoJobsPlace) {
  ASSERT_TRUE(submit(scriptJob("com.example.a", "exec sleep 1000")));
  const ProcessId process = pidOf("com.example.a");
  dropHost();
  ASSERT_EQ(::kill(process, SIGKILL), 0);
  ASSERT_EQ(::waitpid(process, nullptr, 0), process);
  const StrangersProgram ofJob("/bin/sleep", host(), "com.example.a");
  const StrangersProgram ofNoJob("/bin/sleep", host(), "com.example.none");
  const StrangersProgram withRights(rootsProgram_, host(), "com.example.a");
  for (const auto* program : {&ofJob, &ofNoJob}) awaitMark(*program);
  awaitRoot(withRights);
  startHost();
  runUntil([&] { return pidOf("com.example.a") > 0; });
  for (const auto* program : {&ofJob, &ofNoJob, &withRights}) {
    EXPECT_TRUE(program->isAlive());
    EXPECT_NE(pidOf("com.example.a"), program->process());
  }
  EXPECT_THAT(host_->labels(), testing::ElementsAre("com.example.a"));
}

TEST_P(JobHostForgedMarks, AJobInItsGroupIsTakenOverWithoutAStateFile) {
  if (!GetParam() || !makeGroups())
    GTEST_SKIP() << "without control groups its mark counts for less";
  if (!::getpwnam("nobody")) GTEST_SKIP() << "there is no user nobody";
  auto job = scriptJob("com.example.a", "exec sleep 1000");
  job.set("UserName", "nobody");
  ASSERT_TRUE(submit(std::move(job)));
  const ProcessId process = pidOf("com.example.a");
  dropHost();
  ASSERT_EQ(::unlink(root_.path("run/vantor/launchd.state").c_str()), 0);
  startHost();
  EXPECT_EQ(pidOf("com.example.a"), process);
  EXPECT_TRUE(exists(process));
}

TEST_P(JobHostForgedMarks, TheUserOfAMarkIsTold) {
  EXPECT_EQ(*ownerOfMark(std::to_string(::getpid())), ::getuid());
  EXPECT_EQ(*ownerOfMark("0"), kUnknownUser);
  const StrangersProgram stranger("/bin/sleep", host(), "com.example.a");
  const StrangersProgram withRights(rootsProgram_, host(), "com.example.a");
  awaitMark(stranger);
  EXPECT_EQ(*ownerOfMark(stranger.number()), kStranger);
  awaitRoot(withRights);
  EXPECT_EQ(*ownerOfMark(withRights.number()), kUnknownUser);
#if !defined(__SANITIZE_ADDRESS__)
  const platform::DescriptorShortage shortage(platform::DescriptorShortage::Left::kNone);
  const auto unknown = ownerOfMark(stranger.number());
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().code, platform::ErrorCode::kExhausted);
#endif
}

}  // namespace
}  // namespace jobhost
