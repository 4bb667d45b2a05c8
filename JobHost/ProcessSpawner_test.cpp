#include "JobHost/ProcessSpawner.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/JobAccount.h"
#include "JobHost/StateReader.h"
#include "Platform/Testing/TemporaryFolder.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::ExitStatus;
using platform::UniqueFd;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

constexpr std::uint64_t kDescriptorLimit = 777;

class ProcessSpawnerTest : public testing::Test {
 protected:
  ProcessSpawnerTest() {
    auto spawner = ProcessSpawner::create(kDescriptorLimit);
    EXPECT_TRUE(spawner) << platform::describe(spawner.error());
    spawner_.emplace(*std::move(spawner));
    file_.reset(
        ::open(folder_.path("state").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  }

  // A job whose shell script writes to a file that output() reads.
  JobDefinition script(const std::string& text) const {
    JobDefinition job;
    job.label = "com.example.job";
    job.program = "/bin/sh";
    job.arguments = {"sh", "-c", text};
    job.standardOutPath = folder_.path("output");
    job.standardErrorPath = folder_.path("output");
    return job;
  }

  platform::Result<ProcessSpawner::Spawned> spawn(const JobDefinition& job, int listener = -1) {
    record_ = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
    return spawner_->spawn(job, {file_.get(), record_}, listener);
  }

  ExitStatus awaitEnd(const ProcessSpawner::Spawned& spawned) {
    pollfd entry{spawned.pidfd.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 60'000), 1);
    siginfo_t info{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(spawned.process), &info, WEXITED), 0);
    return {info.si_code == CLD_EXITED ? ExitStatus::Kind::kExited : ExitStatus::Kind::kSignalled,
            info.si_status};
  }

  std::string output() const {
    std::ifstream file(folder_.path("output"));
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  std::string outputOf(const JobDefinition& job, int listener = -1) {
    ::unlink(folder_.path("output").c_str());
    const auto spawned = spawn(job, listener);
    EXPECT_TRUE(spawned) << platform::describe(spawned.error());
    if (spawned) awaitEnd(*spawned);
    return output();
  }
  std::string outputOfScript(const std::string& text) { return outputOf(script(text)); }

  std::string refusal(const JobDefinition& job) {
    const auto spawned = spawn(job);
    EXPECT_FALSE(spawned);
    if (spawned) {
      awaitEnd(*spawned);
      return "";
    }
    // It has been reaped.
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    return platform::describe(spawned.error());
  }

  std::size_t recordedBytes() const {
    struct stat status{};
    EXPECT_EQ(::fstat(file_.get(), &status), 0);
    return static_cast<std::size_t>(status.st_size);
  }

  platform::TemporaryFolder folder_;
  std::optional<ProcessSpawner> spawner_;
  UniqueFd file_;
  std::vector<std::uint8_t> record_;
};

TEST_F(ProcessSpawnerTest, TheProgramGetsItsArgumentsAndItsOwnSession) {
  JobDefinition job = script("echo \"$0,$1,$2,$$\"; cut -d' ' -f5,6 /proc/$$/stat");
  job.arguments.insert(job.arguments.end(), {"name", "one two", ""});
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned);
  EXPECT_EQ(awaitEnd(*spawned), ExitStatus{});
  const std::string pid = std::to_string(spawned->process);
  EXPECT_EQ(output(), "name,one two,," + pid + "\n" + pid + " " + pid + "\n");
}

TEST_F(ProcessSpawnerTest, TheEnvironmentIsTheDictionarysAndWhatEverybodyNeeds) {
  JobDefinition job;
  job.label = "com.example.job";
  job.program = "/usr/bin/env";
  job.arguments = {"env"};
  job.standardOutPath = folder_.path("output");
  job.environment = {{"B", "2"}, {"A", "1=1"}, {"SHELL", "/bin/other"}};
  const passwd* user = ::getpwuid(::geteuid());
  ASSERT_NE(user, nullptr);
  const std::string name = user->pw_name;
  EXPECT_EQ(outputOf(job),
            "B=2\nA=1=1\nSHELL=/bin/other\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\nHOME=" +
                std::string(user->pw_dir) + "\nUSER=" + name + "\nLOGNAME=" + name + "\n");
}

TEST_F(ProcessSpawnerTest, FolderMaskAndNicenessAreTheJobs) {
  JobDefinition job = script("pwd; umask; nice");
  job.workingDirectory = "/usr";
  job.umask = 0027;
  job.nice = 7;
  EXPECT_EQ(outputOf(job), "/usr\n0027\n7\n");
}

TEST_F(ProcessSpawnerTest, LimitsAreTheJobsAndTheDescriptorLimitTheOneBefore) {
  EXPECT_EQ(outputOfScript("ulimit -Sn"), std::to_string(kDescriptorLimit) + "\n");
  JobDefinition job = script("ulimit -Sn; ulimit -Hn; ulimit -Sc; ulimit -Hc; ulimit -Ht");
  job.limits = {{RLIMIT_NOFILE, 50, 60}, {RLIMIT_CORE, {}, 0}, {RLIMIT_CPU, {}, 500}};
  EXPECT_EQ(outputOf(job), "50\n60\n0\n0\n500\n");
  job = script("ulimit -Sn; ulimit -Hn");
  job.limits = {{RLIMIT_NOFILE, {}, 60}};
  EXPECT_EQ(outputOf(job), "60\n60\n");
}

TEST_F(ProcessSpawnerTest, ALimitOnFilesDoesNotKeepTheStartFromBeingRecorded) {
  JobDefinition job = script("ulimit -f");
  job.standardOutPath = "/dev/null";
  job.limits = {{RLIMIT_FSIZE, 0, 0}};
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned) << platform::describe(spawned.error());
  awaitEnd(*spawned);
  EXPECT_EQ(recordedBytes(), record_.size());
}

TEST_F(ProcessSpawnerTest, TheHostsSignalsAreNotTheJobs) {
  const auto handler = std::signal(SIGUSR1, SIG_IGN);
  const auto other = std::signal(SIGUSR2, [](int) {});
  sigset_t mask;
  sigset_t before;
  sigfillset(&mask);
  ::pthread_sigmask(SIG_BLOCK, &mask, &before);
  JobDefinition job = script("");
  job.program = "/bin/cat";
  job.arguments = {"cat", "/proc/self/status"};
  EXPECT_THAT(
      outputOf(job),
      HasSubstr(
          "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nSigCgt:\t0000000000000000\n"));
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  std::signal(SIGUSR1, handler);
  std::signal(SIGUSR2, other);
}

TEST_F(ProcessSpawnerTest, NoDescriptorOfTheHostReachesTheJob) {
  const UniqueFd inheritable(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(inheritable);
  JobDefinition job = script("");
  job.program = "/bin/ls";
  job.arguments = {"ls", "/proc/self/fd"};
  EXPECT_EQ(outputOf(job), "0\n1\n2\n3\n");  // The last is the folder that it reads.
}

TEST_F(ProcessSpawnerTest, StandardFilesAreTheJobs) {
  folder_.write("input", "from the file\n");
  JobDefinition job = script("cat; echo error >&2; readlink /proc/self/fd/0");
  job.standardInPath = folder_.path("input");
  EXPECT_EQ(outputOf(job), "from the file\nerror\n" + folder_.path("input") + "\n");
  // What is there stays.
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned);
  awaitEnd(*spawned);
  EXPECT_EQ(output().size(), 2 * ("from the file\nerror\n" + folder_.path("input") + "\n").size());
  EXPECT_EQ(outputOfScript("readlink /proc/self/fd/0"), "/dev/null\n");
}

TEST_F(ProcessSpawnerTest, APipeThatNobodyWritesToIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(folder_.path("pipe").c_str(), 0600), 0);
  JobDefinition job = script("cat; echo end");
  job.standardInPath = folder_.path("pipe");
  EXPECT_EQ(outputOf(job), "end\n");
  job.standardInPath = "/dev/null";
  job.standardOutPath = folder_.path("pipe");
  EXPECT_THAT(refusal(job), AllOf(HasSubstr("opening \"" + folder_.path("pipe")),
                                  EndsWith(std::strerror(ENXIO))));
}

TEST_F(ProcessSpawnerTest, AListenerIsPassedByTheUsualConvention) {
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  JobDefinition job = script(
      "echo $LISTEN_FDS $LISTEN_FDNAMES $OTHER; test $LISTEN_PID = $$ && readlink /proc/$$/fd/3");
  job.machServices = {"com.example.service"};
  job.environment = {{"LISTEN_FDS", "9"}, {"OTHER", "kept"}};
  struct stat status{};
  ASSERT_EQ(::fstat(socket.get(), &status), 0);
  EXPECT_EQ(outputOf(job, socket.get()),
            "1 com.example.service kept\nsocket:[" + std::to_string(status.st_ino) + "]\n");
}

TEST_F(ProcessSpawnerTest, TheProcessRecordsItselfBeforeItsProgramRuns) {
  JobDefinition job = script("cat " + folder_.path("state") + " | wc -c; cat /proc/$$/stat");
  job.standardInPath = folder_.path("state");
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned);
  struct stat status{};
  ASSERT_EQ(::fstat(spawned->pidfd.get(), &status), 0);
  awaitEnd(*spawned);
  EXPECT_EQ(recordedBytes(), record_.size());
  EXPECT_THAT(output(), testing::StartsWith(std::to_string(record_.size()) + "\n"));

  StartFields fields;
  std::memcpy(&fields, record_.data() + sizeof(RecordHeader), sizeof fields);
  EXPECT_EQ(fields.process, spawned->process);
  const std::string stat = output().substr(output().find('\n') + 1);
  EXPECT_EQ(fields.startTicks, startTicksIn(stat.data(), stat.size()));
  EXPECT_EQ(fields.pidfdInode, pidfdsAreUnique() ? status.st_ino : 0);
  RecordHeader header;
  std::memcpy(&header, record_.data(), sizeof header);
  EXPECT_EQ(header.check, recordCheck(header, record_.data() + sizeof header));
}

TEST_F(ProcessSpawnerTest, AProcessThatCannotRecordItselfDoesNotExecuteItsProgram) {
  file_.reset(::open(folder_.path("state").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_THAT(refusal(script("echo ran")),
              AllOf(HasSubstr("recording the start"), EndsWith(std::strerror(EBADF))));
  file_.reset(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_THAT(refusal(script("echo ran")),
              AllOf(HasSubstr("recording the start"), EndsWith(std::strerror(ENOSPC))));
  EXPECT_EQ(output(), "");
}

// What fails says which stage it was and why.

TEST_F(ProcessSpawnerTest, AProgramThatCannotBeExecutedIsRefusedWithTheSystemsReason) {
  JobDefinition job = script("");
  const std::string text = folder_.write("text", "not a program\n");
  const std::string orphan = folder_.write("orphan", "#!/no/such/interpreter\n");
  ASSERT_EQ(::chmod(orphan.c_str(), 0755), 0);
  const std::string empty = folder_.write("empty", "x");
  ASSERT_EQ(::chmod(empty.c_str(), 0755), 0);
  for (const auto& [program, error] : {std::pair<std::string, int>{"/no/such/program", ENOENT},
                                       {text, EACCES},
                                       {folder_.path(), EACCES},
                                       {orphan, ENOENT},
                                       {empty, ENOEXEC},
                                       {text + "/below", ENOTDIR}}) {
    job.program = program;
    EXPECT_EQ(refusal(job),
              "job \"com.example.job\": executing \"" + program + "\": " + std::strerror(error));
  }
}

TEST_F(ProcessSpawnerTest, FoldersFilesAndLimitsThatCannotBeHadAreRefused) {
  struct Row {
    std::string stage;
    int error;
    std::function<void(JobDefinition&)> change;
  };
  const Row rows[] = {
      {"chdir to \"/no/such\"", ENOENT, [](auto& job) { job.workingDirectory = "/no/such"; }},
      {"chdir to \"/dev/null\"", ENOTDIR, [](auto& job) { job.workingDirectory = "/dev/null"; }},
      {"opening \"/no/such\"", ENOENT, [](auto& job) { job.standardInPath = "/no/such"; }},
      {"opening \"/no/such\"", ENOENT, [](auto& job) { job.standardErrorPath = "/no/such"; }},
      {"opening \"/no/such/out\"", ENOENT, [](auto& job) { job.standardOutPath = "/no/such/out"; }},
      {"opening \"/\"", EISDIR, [](auto& job) { job.standardInPath = "/"; }},
      {"opening \"/\"", EISDIR, [](auto& job) { job.standardOutPath = "/"; }},
      {"setrlimit of \"NumberOfFiles\"", EPERM,
       [](auto& job) { job.limits = {{RLIMIT_NOFILE, 1, rlim_t{1} << 60}}; }},
      {"setrlimit of \"Core\"", EINVAL, [](auto& job) { job.limits = {{RLIMIT_CORE, 2, 1}}; }},
  };
  for (const Row& row : rows) {
    JobDefinition job = script("echo ran");
    job.standardErrorPath = "/dev/null";
    row.change(job);
    EXPECT_THAT(refusal(job), AllOf(HasSubstr("job \"com.example.job\": " + row.stage),
                                    EndsWith(std::strerror(row.error))));
  }
  EXPECT_EQ(output(), "");
}

TEST_F(ProcessSpawnerTest, UsersAndGroupsThatDoNotExistAreRefused) {
  JobDefinition job = script("");
  job.userName = "no-such-user";
  EXPECT_EQ(refusal(job), "job \"com.example.job\": the user \"no-such-user\" does not exist");
  job.userName = ::getpwuid(::geteuid())->pw_name;
  job.groupName = "no-such-group";
  EXPECT_EQ(refusal(job), "job \"com.example.job\": the group \"no-such-group\" does not exist");
}

TEST_F(ProcessSpawnerTest, WithoutADescriptorForItThereIsNoFork) {
  JobDefinition job = script("");
  job.standardOutPath = job.standardErrorPath = "/dev/null";
  // Nothing else in there: the sanitizers need descriptors for some of their checks.
  record_ = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = ::dup(0);
  ::close(next);
  const rlimit none{static_cast<rlim_t>(next), before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto spawned = spawner_->spawn(job, {file_.get(), record_}, -1);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_FALSE(spawned);
  EXPECT_EQ(platform::describe(spawned.error()),
            std::string("job \"com.example.job\": fork: ") + std::strerror(EMFILE));
}

// As somebody else, which only root can.

class ProcessSpawnerAsRoot : public ProcessSpawnerTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
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

TEST_F(ProcessSpawnerAsRoot, AFolderThatTheUserMayNotEnterIsRefused) {
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
  const auto first = spawn(job);  // Waits for a writer.
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
  // Nothing is in there to be executed, but the folder is.
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

}  // namespace
}  // namespace jobhost
