// Processes of other users, which only root can start.

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/Processes/ProcessSpawnerFixture_contract.h"

namespace jobhost {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

class ProcessSpawnerAsRoot : public ProcessSpawnerTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    // The users' processes write their output there.
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
    const passwd* nobody = ::getpwnam("nobody");
    if (!nobody) GTEST_SKIP() << "there is no user nobody";
    user_ = std::to_string(nobody->pw_uid);
    group_ = std::to_string(nobody->pw_gid);
    home_ = nobody->pw_dir;
  }

  std::string user_;
  std::string group_;
  std::string home_;
};

TEST_F(ProcessSpawnerAsRoot, UserGroupAndGroupsAreTheUsers) {
  JobDefinition job =
      script("id -u; id -g; id -G; echo $HOME $USER $LOGNAME; grep -E '^[UG]id' /proc/self/status");
  job.userName = "nobody";
  const auto four = [](const std::string& id) { return id + "\t" + id + "\t" + id + "\t" + id; };
  EXPECT_EQ(outputOf(job), user_ + "\n" + group_ + "\n" + group_ + "\n" + home_ +
                               " nobody nobody\nUid:\t" + four(user_) + "\nGid:\t" + four(group_) +
                               "\n");
}

TEST_F(ProcessSpawnerAsRoot, AGroupOfItsOwnTakesThePlaceOfTheUsers) {
  const group* daemon = ::getgrnam("daemon");
  ASSERT_NE(daemon, nullptr);
  const std::string id = std::to_string(daemon->gr_gid);
  JobDefinition job = script("id -u; id -g");
  job.userName = "nobody";
  job.groupName = "daemon";
  EXPECT_EQ(outputOf(job), user_ + "\n" + id + "\n");
  job.userName.reset();
  EXPECT_EQ(outputOf(job), "0\n" + id + "\n");
}

TEST_F(ProcessSpawnerAsRoot, WithoutInitGroupsTheJobHasItsOwnGroupAlone) {
  ::setgrent();
  const group* several = ::getgrent();
  while (several && !several->gr_mem[0]) several = ::getgrent();
  if (!several) GTEST_SKIP() << "no user has supplementary groups";
  JobDefinition job = script("id -G | wc -w");
  job.userName = several->gr_mem[0];
  EXPECT_NE(outputOf(job), "1\n");
  job.initGroups = false;
  EXPECT_EQ(outputOf(job), "1\n");
}

TEST_F(ProcessSpawnerAsRoot, AFolderThatTheUserMayNotEnterIsAnError) {
  ASSERT_EQ(::mkdir(folder_.path("closed").c_str(), 0700), 0);
  JobDefinition job = script("");
  job.userName = "nobody";
  job.workingDirectory = folder_.path("closed");
  EXPECT_THAT(refusal(job), AllOf(HasSubstr("chdir to"), EndsWith(std::strerror(EACCES))));
}

TEST_F(ProcessSpawnerAsRoot, AUserWithTooManyProcessesFailsAtTheExecution) {
  JobDefinition job = script("exec cat " + folder_.path("pipe"));
  job.userName = "nobody";
  ASSERT_EQ(::mkfifo(folder_.path("pipe").c_str(), 0644), 0);
  const auto first = spawn(job);  // It waits for a writer.
  ASSERT_TRUE(first);
  job.limits = {{RLIMIT_NPROC, 0, 0}};
  const auto second = spawn(job);
  ::kill(first->process, SIGKILL);
  awaitEnd(*first);
  ASSERT_FALSE(second);
  EXPECT_THAT(platform::describe(second.error()),
              AllOf(HasSubstr("executing \"/bin/sh\""), EndsWith(std::strerror(EAGAIN))));
}

TEST_F(ProcessSpawnerAsRoot, TheRootDirectoryIsTheJobs) {
  JobDefinition job = script("");
  job.rootDirectory = folder_.path();
  // The folder exists, but holds no program to execute.
  folder_.write("sub/file", "");
  job.workingDirectory = "/sub";
  EXPECT_THAT(refusal(job),
              AllOf(HasSubstr("executing \"/bin/sh\""), EndsWith(std::strerror(ENOENT))));
  job.workingDirectory = "/usr";
  EXPECT_THAT(refusal(job), HasSubstr("chdir to \"/usr\""));
  job.rootDirectory = "/no/such";
  EXPECT_THAT(refusal(job),
              AllOf(HasSubstr("chroot to \"/no/such\""), EndsWith(std::strerror(ENOENT))));
}

// Takes a capability from the calling process, as a container may have done.
bool giveUp(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[2]{};
  if (::syscall(SYS_capget, &header, sets) != 0) return false;
  sets[0].effective &= ~(1U << capability);
  return ::syscall(SYS_capset, &header, sets) == 0;
}

TEST_F(ProcessSpawnerAsRoot, AHostThatMayNotBecomeTheUserReportsTheStep) {
  struct Row {
    int capability;
    std::string stage;
  };
  const Row rows[] = {{CAP_SETGID, "setgroups for \"nobody\""},
                      {CAP_SETUID, "setuid to " + user_ + " (\"nobody\")"}};
  for (const Row& row : rows) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t host = ::fork();
    ASSERT_GE(host, 0);
    if (host == 0) {
      JobDefinition job = script("");
      job.userName = "nobody";
      job.standardOutPath = job.standardErrorPath = "/dev/null";
      const auto spawned = giveUp(row.capability)
                               ? spawn(job)
                               : std::unexpected(platform::Error{{}, errno, "capset"});
      const std::string text = spawned ? "started" : platform::describe(spawned.error());
      const ssize_t written = ::write(pipe[1], text.data(), text.size());
      ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    ::close(pipe[1]);
    char text[256];
    const ssize_t size = ::read(pipe[0], text, sizeof text);
    ::close(pipe[0]);
    EXPECT_EQ(::waitpid(host, nullptr, 0), host);
    ASSERT_GT(size, 0);
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(size)),
              "job \"com.example.job\": " + row.stage + ": " + std::strerror(EPERM));
  }
}

// The rights with which the standard files are opened.

TEST_F(ProcessSpawnerAsRoot, StandardFilesAreMadeByTheUser) {
  const group* daemon = ::getgrnam("daemon");
  ASSERT_NE(daemon, nullptr);
  JobDefinition job = script("echo out");
  job.userName = "nobody";
  job.groupName = "daemon";
  EXPECT_EQ(outputOf(job), "out\n");
  struct stat status{};
  ASSERT_EQ(::stat(folder_.path("output").c_str(), &status), 0);
  EXPECT_EQ(std::to_string(status.st_uid), user_);
  EXPECT_EQ(status.st_gid, daemon->gr_gid);
}

TEST_F(ProcessSpawnerAsRoot, ALinkOfTheUserIsFollowedWithTheUsersRightsOnly) {
  const std::string secret = folder_.write("secret", "root's own\n");
  ASSERT_EQ(::chmod(secret.c_str(), 0600), 0);
  ASSERT_EQ(::symlink(secret.c_str(), folder_.path("link").c_str()), 0);
  for (auto path : {&JobDefinition::standardInPath, &JobDefinition::standardOutPath,
                    &JobDefinition::standardErrorPath}) {
    JobDefinition job = script("cat");
    job.userName = "nobody";
    job.standardOutPath = job.standardErrorPath = "/dev/null";
    job.*path = folder_.path("link");
    EXPECT_THAT(refusal(job), AllOf(HasSubstr("opening \"" + folder_.path("link") + "\""),
                                    EndsWith(std::strerror(EACCES))));
  }
  std::ifstream file(secret);
  std::ostringstream text;
  text << file.rdbuf();
  EXPECT_EQ(text.str(), "root's own\n");
}

TEST_F(ProcessSpawnerAsRoot, AFileOfTheJobsGroupCanBeWritten) {
  const group* daemon = ::getgrnam("daemon");
  ASSERT_NE(daemon, nullptr);
  const std::string shared = folder_.write("output", "");
  ASSERT_EQ(::chmod(shared.c_str(), 0660), 0);
  ASSERT_EQ(::chown(shared.c_str(), 0, daemon->gr_gid), 0);
  JobDefinition job = script("echo out");
  job.userName = "nobody";
  EXPECT_THAT(refusal(job), EndsWith(std::strerror(EACCES)));
  job.groupName = "daemon";
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned);
  awaitEnd(*spawned);
  EXPECT_EQ(output(), "out\n");
}

// Gives this process surroundings that no job should see, and its own ones back at the end.
class OddSurroundings {
 public:
  OddSurroundings() {
    ::getrlimit(RLIMIT_FSIZE, &size_);
    const rlimit small{rlim_t{1} << 20, size_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_EQ(::setpriority(PRIO_PROCESS, 0, 5), 0);
    const sched_param parameters{};
    EXPECT_EQ(::sched_setscheduler(0, SCHED_BATCH, &parameters), 0);
    setOomScore("300");
  }
  OddSurroundings(const OddSurroundings&) = delete;
  OddSurroundings& operator=(const OddSurroundings&) = delete;
  ~OddSurroundings() {
    setOomScore("0");
    const sched_param parameters{};
    ::sched_setscheduler(0, SCHED_OTHER, &parameters);
    ::setpriority(PRIO_PROCESS, 0, 0);
    ::setrlimit(RLIMIT_FSIZE, &size_);
    ::umask(umask_);
  }

 private:
  static void setOomScore(const char* score) {
    EXPECT_TRUE(std::ofstream("/proc/self/oom_score_adj") << score << std::flush);
  }

  rlimit size_{};
  mode_t umask_ = ::umask(0077);
};

TEST_F(ProcessSpawnerAsRoot, TheSurroundingsOfTheHostDoNotReachTheJob) {
  const OddSurroundings odd;
  auto again = ProcessSpawner::create(kDescriptorLimit, kHost);
  ASSERT_TRUE(again);
  spawner_.emplace(*std::move(again));
  // Field 41 is the scheduling policy.
  const std::string show =
      "umask; nice; cat /proc/self/oom_score_adj; cut -d' ' -f41 /proc/self/stat; ulimit -Sf; "
      "ulimit -Sc; ulimit -Ss";
  for (const auto& user : {std::optional<std::string>(), std::optional<std::string>("nobody")}) {
    JobDefinition job = script(show);
    job.userName = user;
    EXPECT_EQ(outputOf(job), "0022\n0\n0\n0\nunlimited\n0\n8192\n");
  }
}

TEST_F(ProcessSpawnerAsRoot, AnotherUsersJobLeavesTheHostDumpable) {
  JobDefinition job = script("id -u");
  job.userName = "nobody";
  ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 1), 0);
  EXPECT_EQ(outputOf(job), user_ + "\n");
  EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 1);
}

}  // namespace
}  // namespace jobhost
