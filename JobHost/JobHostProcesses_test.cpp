// The job host with real processes.

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "JobHost/JobHostBed_contract.h"

namespace jobhost {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::LaunchdError;
using namespace std::chrono_literals;
using platform::UniqueFd;
using platform::Value;
using testing::EndsWith;
using testing::HasSubstr;

class JobHostProcesses : public RealJobHostTest {
 protected:
  LineChannel lines_{loop(), root_.path("lines")};

  // Reports its number and lives until it is ended.
  std::string reporting() const { return "echo $$ >" + lines_.path() + "; exec sleep 1000"; }
};

TEST_F(JobHostProcesses, ASubmittedJobRunsIsReportedAndRemoved) {
  ASSERT_TRUE(submit(scriptJob("com.example.job", reporting())));
  const auto pid = pidOf("com.example.job");
  EXPECT_EQ(lines_.nextLine(), std::to_string(pid));
  EXPECT_EQ(::getpgid(pid), pid);
  EXPECT_EQ(::getsid(pid), pid);
  EXPECT_TRUE(host_->copy("com.example.job")["LastExitStatus"].isNil());
  ASSERT_TRUE(remove("com.example.job"));
  EXPECT_FALSE(exists(pid));
  EXPECT_TRUE(host_->copy("com.example.job").isNil());
}

TEST_F(JobHostProcesses, AKilledJobIsStartedAgain) {
  ASSERT_TRUE(submit(scriptJob("com.example.job", reporting())));
  const std::string first = lines_.nextLine();
  ::kill(std::stoi(first), SIGKILL);
  const std::string second = lines_.nextLine();
  EXPECT_NE(first, second);
  EXPECT_EQ(second, std::to_string(pidOf("com.example.job")));
  EXPECT_EQ(host_->copy("com.example.job")["LastExitStatus"], platform::Value(SIGKILL));
}

TEST_F(JobHostProcesses, TheNextHostTakesTheJobsOver) {
  ASSERT_TRUE(submit(scriptJob("com.example.job", reporting())));
  const std::string first = lines_.nextLine();
  dropHost();
  startHost();
  EXPECT_EQ(first, std::to_string(pidOf("com.example.job")));
  ::kill(std::stoi(first), SIGKILL);
  const std::string second = lines_.nextLine();
  EXPECT_EQ(second, std::to_string(pidOf("com.example.job")));
}

TEST_F(JobHostProcesses, TheGroupEndsWithItsJob) {
  const std::string child = "sleep 1000 & echo $! >" + lines_.path() + "; exec sleep 1000";
  ASSERT_TRUE(submit(scriptJob("com.example.job", child)));
  const auto member = std::stoi(lines_.nextLine());
  EXPECT_EQ(::getpgid(member), pidOf("com.example.job"));
  const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, member, 0)));
  ASSERT_TRUE(pidfd);
  ASSERT_TRUE(remove("com.example.job"));
  pollfd entry{pidfd.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, 0), 1);
}

TEST_F(JobHostProcesses, RemainingProcessesAreKilledAndReaped) {
  const std::string child = "sleep 1000 & echo $! >" + lines_.path();
  Dictionary job = scriptJob("com.example.job", child);
  job.set("KeepAlive", false);
  job.set("RunAtLoad", true);
  ASSERT_TRUE(submit(job));
  const auto member = std::stoi(lines_.nextLine());
  const auto look = loop().startTimer(1ms, platform::RunLoop::Repeat::kEvery, [&] {
    if (!exists(member)) loop().stop();
  });
  const auto deadline = loop().startTimer(kTestDeadline, platform::RunLoop::Repeat::kOnce, [&] {
    ADD_FAILURE() << "process " << member << " is still there";
    loop().stop();
  });
  loop().run();
  EXPECT_EQ(host_->copy("com.example.job")["LastExitStatus"], Value(0));
}

TEST_F(JobHostProcesses, TheNextHostKillsTheGroupOfALeaderThatHasEnded) {
  // The first start leaves a member, the later ones leave none.
  const std::string once = root_.path("once");
  ASSERT_TRUE(submit(
      scriptJob("com.example.job", "test -e " + once + " && exec sleep 1000; touch " + once +
                                       "; sleep 1000 & echo $! >" + lines_.path() + "; wait")));
  const auto member = std::stoi(lines_.nextLine());
  const auto leader = pidOf("com.example.job");
  const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, member, 0)));
  ASSERT_TRUE(pidfd);
  dropHost();
  ::kill(leader, SIGKILL);
  ASSERT_EQ(::waitpid(leader, nullptr, 0), leader);
  startHost();
  pollfd entry{pidfd.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, 60'000), 1);
  EXPECT_NE(pidOf("com.example.job"), leader);
}

TEST_F(JobHostProcesses, AnExitThatAClientHasSeenIsInTheNextAnswer) {
  ASSERT_TRUE(submit(scriptJob("com.example.job", reporting())));
  const auto pid = std::stoi(lines_.nextLine());
  const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  ::kill(pid, SIGKILL);
  pollfd entry{pidfd.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&entry, 1, 60'000), 1);
  // The loop has not run since.
  EXPECT_EQ(host_->copy("com.example.job")["LastExitStatus"], Value(SIGKILL));
  EXPECT_NE(pidOf("com.example.job"), pid);
}

TEST_F(JobHostProcesses, AProgramThatCannotBeExecutedMakesNoJob) {
  Dictionary job = scriptJob("com.example.job", "");
  job.set("Program", "/no/such/program");
  const auto outcome = submit(job);
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kInternal));
  EXPECT_EQ(outcome.error().localizedDescription,
            std::string("job \"com.example.job\": executing \"/no/such/program\": ") +
                std::strerror(ENOENT));
  EXPECT_TRUE(host_->labels().empty());
  dropHost();
  startHost();
  EXPECT_TRUE(host_->labels().empty());
}

// Services.

class JobHostServices : public JobHostProcesses {
 protected:
  static constexpr char kService[] = "com.example.service";

  // Reports which socket it was passed, and goes on.
  Dictionary serviceJob(const std::string& label = "com.example.job") const {
    Dictionary job =
        scriptJob(label, "readlink /proc/$$/fd/3 >" + lines_.path() + "; exec sleep 1000");
    job.set("MachServices", Dictionary{{kService, true}});
    return job;
  }

  // The result of connecting by the name: 0 or an error number.
  int connectTo(const std::string& service) const {
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = root_.path("run/vantor/mach/" + service);
    std::memcpy(address.sun_path, path.data(), path.size());
    const int result =
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return result == 0 ? 0 : errno;
  }
};

TEST_F(JobHostServices, AClientStartsTheJobAgainAndAgain) {
  // Nobody accepts the client, so it stays a reason to start the job.
  Dictionary job = scriptJob("com.example.job", "echo $LISTEN_FDNAMES >" + lines_.path());
  job.remove("KeepAlive");
  job.set("MachServices", Dictionary{{"com.example.a", true}, {"com.example.b", true}});
  ASSERT_TRUE(submit(job));
  EXPECT_EQ(pidOf("com.example.job"), 0);
  EXPECT_EQ(connectTo("com.example.b"), 0);
  for (int start = 0; start < 3; ++start) {
    EXPECT_EQ(lines_.nextLine(), "com.example.a:com.example.b");
  }
}

TEST_F(JobHostServices, TheSocketOutlivesTheProcessAndEndsWithTheJob) {
  ASSERT_TRUE(submit(serviceJob()));
  const std::string socket = lines_.nextLine();
  EXPECT_THAT(socket, testing::StartsWith("socket:["));
  struct stat status{};
  ASSERT_EQ(::stat(root_.path("run/vantor/mach/com.example.service").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFSOCK | 0600u);
  ::kill(pidOf("com.example.job"), SIGKILL);
  EXPECT_EQ(connectTo(kService), 0);
  EXPECT_EQ(lines_.nextLine(), socket);
  ASSERT_TRUE(remove("com.example.job"));
  EXPECT_EQ(connectTo(kService), ENOENT);
}

TEST_F(JobHostServices, TheNextHostHasTheSameSocket) {
  ASSERT_TRUE(submit(serviceJob()));
  const std::string socket = lines_.nextLine();
  dropHost();
  startHost();
  EXPECT_EQ(connectTo(kService), 0);
  ::kill(pidOf("com.example.job"), SIGKILL);
  EXPECT_EQ(lines_.nextLine(), socket);
}

TEST_F(JobHostServices, ASocketThatNoProcessKeptIsBoundAgain) {
  Dictionary job = serviceJob();
  job.set("KeepAlive", false);  // The job is idle without a process.
  ASSERT_TRUE(submit(job));
  EXPECT_EQ(connectTo(kService), 0);
  dropHost();
  EXPECT_EQ(connectTo(kService), ECONNREFUSED);
  startHost();
  EXPECT_EQ(connectTo(kService), 0);
}

TEST_F(JobHostServices, AServiceBelongsToOneJob) {
  ASSERT_TRUE(submit(serviceJob()));
  const auto outcome = submit(serviceJob("com.example.other"));
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kInvalidJob));
  EXPECT_THAT(outcome.error().localizedDescription,
              HasSubstr("is that of job \"com.example.job\""));
  EXPECT_TRUE(host_->copy("com.example.other").isNil());
  EXPECT_EQ(connectTo(kService), 0);
}

TEST_F(JobHostServices, AServicesNameMayBeAsLongAsAFileName) {
  const std::string longest(255, 'n');
  Dictionary job = serviceJob();
  job.set("MachServices", Dictionary{{longest, true}});
  ASSERT_TRUE(submit(job));
  struct stat status{};
  EXPECT_EQ(::stat(root_.path("run/vantor/mach/" + longest).c_str(), &status), 0);
}

// The folders.

class JobHostFolders : public RealJobHostTest {
 protected:
  std::string refusal() {
    host_.reset();
    JobHostOptions options;
    options.root = root_.path();
    options.bootId = "boot";
    const auto host = JobHost::create(loop(), *processes_, log_, std::move(options));
    EXPECT_FALSE(host);
    return host ? "" : platform::describe(host.error());
  }
};

TEST_F(JobHostFolders, AreWritableByTheHostAlone) {
  for (const char* folder : {"run/vantor", "run/vantor/mach"}) {
    struct stat status{};
    ASSERT_EQ(::stat(root_.path(folder).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0755u);
  }
  ASSERT_EQ(::chmod(root_.path("run/vantor/mach").c_str(), 0775), 0);
  EXPECT_THAT(refusal(), HasSubstr("others than its owner can write it"));
}

TEST_F(JobHostFolders, ALinkInTheirPlaceIsRefused) {
  host_.reset();
  ASSERT_EQ(::rename(root_.path("run/vantor/mach").c_str(), root_.path("else").c_str()), 0);
  ASSERT_EQ(::symlink(root_.path("else").c_str(), root_.path("run/vantor/mach").c_str()), 0);
  EXPECT_THAT(refusal(), HasSubstr("expected a folder itself"));
}

}  // namespace
}  // namespace jobhost
