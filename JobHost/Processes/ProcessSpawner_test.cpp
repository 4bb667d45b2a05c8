// One file, because each test starts real programs by the same fixture.

#include "JobHost/Processes/ProcessSpawner.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
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

#include "JobHost/Processes/ProcessSpawnerFixture_contract.h"
#include "Platform/Testing/Machine/DescriptorShortage.h"

namespace jobhost {
namespace {

using platform::DescriptorShortage;
using platform::Error;
using platform::ErrorCode;
using platform::ExitStatus;
using platform::UniqueFd;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

TEST_F(ProcessSpawnerTest, TheProgramGetsItsArgumentsAndItsOwnSession) {
  JobDefinition job = script("echo \"$0,$1,$2,$$\"; cut -d' ' -f5,6 /proc/$$/stat");
  job.arguments.insert(job.arguments.end(), {"name", "one two", ""});
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned);
  EXPECT_EQ(awaitEnd(*spawned), ExitStatus{});
  const std::string pid = std::to_string(spawned->process);
  EXPECT_EQ(output(), "name,one two,," + pid + "\n" + pid + " " + pid + "\n");
}

TEST_F(ProcessSpawnerTest, TheEnvironmentIsTheDictionarysAndTheStandardOne) {
  JobDefinition job;
  job.label = "com.example.job";
  job.program = "/usr/bin/env";
  job.arguments = {"env"};
  job.standardOutPath = folder_.path("output");
  job.environment = {{"B", "2"}, {"A", "1=1"}, {"SHELL", "/bin/other"}};
  const passwd* user = ::getpwuid(::geteuid());
  ASSERT_NE(user, nullptr);
  const std::string name = user->pw_name;
  const std::string environment = outputOf(job);
  EXPECT_EQ(environment, "B=2\nA=1=1\nSHELL=/bin/other\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\nHOME=" +
                             std::string(user->pw_dir) + "\nUSER=" + name + "\nLOGNAME=" + name +
                             "\nVANTOR_JOB=0000000000000abc:0:com.example.job:" +
                             std::to_string(recordedProcess()) + "\n");
}

TEST_F(ProcessSpawnerTest, FolderMaskAndNicenessAreTheJobs) {
  JobDefinition job = script("pwd; umask; nice");
  job.workingDirectory = "/usr";
  job.umask = 0027;
  job.nice = 7;
  EXPECT_EQ(outputOf(job), "/usr\n0027\n7\n");
}

TEST_F(ProcessSpawnerTest, LimitsAreTheJobsAndTheDescriptorLimitTheOriginalOne) {
  EXPECT_EQ(outputOfScript("ulimit -Sn"), std::to_string(kDescriptorLimit) + "\n");
  JobDefinition job = script("ulimit -Sn; ulimit -Hn; ulimit -Sc; ulimit -Hc; ulimit -Ht");
  job.limits = {{RLIMIT_NOFILE, 50, 60}, {RLIMIT_CORE, {}, 0}, {RLIMIT_CPU, {}, 500}};
  EXPECT_EQ(outputOf(job), "50\n60\n0\n0\n500\n");
  job = script("ulimit -Sn; ulimit -Hn");
  job.limits = {{RLIMIT_NOFILE, {}, 60}};
  EXPECT_EQ(outputOf(job), "60\n60\n");
}

TEST_F(ProcessSpawnerTest, AFileSizeLimitDoesNotPreventTheStartsRecord) {
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

TEST_F(ProcessSpawnerTest, RealTimeSignalsThatTheHostIgnoresAreResetForTheJob) {
  const int signals[] = {SIGRTMIN, SIGRTMIN + 7, SIGRTMAX};
  for (const int signal : signals) std::signal(signal, SIG_IGN);
  auto again = ProcessSpawner::create(kDescriptorLimit, kHost);
  for (const int signal : signals) EXPECT_EQ(std::signal(signal, SIG_IGN), SIG_IGN);
  ASSERT_TRUE(again);
  spawner_.emplace(*std::move(again));
  JobDefinition job = script("");
  job.program = "/bin/cat";
  job.arguments = {"cat", "/proc/self/status"};
  EXPECT_THAT(outputOf(job), HasSubstr("SigIgn:\t0000000000000000\n"));
  for (const int signal : signals) std::signal(signal, SIG_DFL);
}

TEST_F(ProcessSpawnerTest, NoDescriptorOfTheHostReachesTheJob) {
  const UniqueFd inheritable(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(inheritable);
  JobDefinition job = script("");
  job.program = "/bin/ls";
  job.arguments = {"ls", "/proc/self/fd"};
  EXPECT_EQ(outputOf(job), "0\n1\n2\n3\n");  // The last one is for the folder that it reads.
}

TEST_F(ProcessSpawnerTest, StandardFilesAreTheJobs) {
  folder_.write("input", "from the file\n");
  JobDefinition job = script("cat; echo error >&2; readlink /proc/self/fd/0");
  job.standardInPath = folder_.path("input");
  EXPECT_EQ(outputOf(job), "from the file\nerror\n" + folder_.path("input") + "\n");
  // The existing contents stay.
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned);
  awaitEnd(*spawned);
  EXPECT_EQ(output().size(), 2 * ("from the file\nerror\n" + folder_.path("input") + "\n").size());
  EXPECT_EQ(outputOfScript("readlink /proc/self/fd/0"), "/dev/null\n");
}

TEST_F(ProcessSpawnerTest, OpeningDoesNotWaitForAPipesWriter) {
  ASSERT_EQ(::mkfifo(folder_.path("pipe").c_str(), 0600), 0);
  JobDefinition job = script("cat; echo end");
  job.standardInPath = folder_.path("pipe");
  EXPECT_EQ(outputOf(job), "end\n");
  job.standardInPath = "/dev/null";
  job.standardOutPath = folder_.path("pipe");
  EXPECT_THAT(refusal(job), AllOf(HasSubstr("opening \"" + folder_.path("pipe")),
                                  EndsWith(std::strerror(ENXIO))));
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

TEST_F(ProcessSpawnerTest, AProcessThatCannotRecordItselfSaysSoAndExecutesItsProgram) {
  for (const auto& [path, error] :
       {std::pair{folder_.path("state"), EBADF}, {std::string("/dev/full"), ENOSPC}}) {
    const int mode = error == EBADF ? O_RDONLY : O_WRONLY;
    file_.reset(::open(path.c_str(), mode | O_CLOEXEC));
    record_ = makeRecord(RecordKind::kStarted, startPayload({}, "com.example.job"));
    int writeError = 0;
    const auto spawned =
        spawner_->spawn(script("echo ran"), {file_.get(), record_, &writeError}, {});
    ASSERT_TRUE(spawned) << platform::describe(spawned.error());
    awaitEnd(*spawned);
    EXPECT_EQ(writeError, error);
  }
  EXPECT_EQ(output(), "ran\nran\n");
}

// An error says which stage failed and why.

TEST_F(ProcessSpawnerTest, AProgramThatCannotBeExecutedIsAnErrorWithTheReason) {
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

TEST_F(ProcessSpawnerTest, UnusableFoldersFilesAndLimitsAreErrors) {
  struct Row {
    std::string stage;
    int error;
    std::function<void(JobDefinition&)> change;
  };
  const Row rows[] = {
      {"key \"WorkingDirectory\": chdir to \"/no/such\"", ENOENT,
       [](auto& job) { job.workingDirectory = "/no/such"; }},
      {"key \"WorkingDirectory\": chdir to \"/dev/null\"", ENOTDIR,
       [](auto& job) { job.workingDirectory = "/dev/null"; }},
      {"key \"StandardInPath\": opening \"/no/such\"", ENOENT,
       [](auto& job) { job.standardInPath = "/no/such"; }},
      {"key \"StandardErrorPath\": opening \"/no/such\"", ENOENT,
       [](auto& job) { job.standardErrorPath = "/no/such"; }},
      {"key \"StandardOutPath\": opening \"/no/such/out\"", ENOENT,
       [](auto& job) { job.standardOutPath = "/no/such/out"; }},
      {"key \"StandardInPath\": opening \"/\"", EISDIR,
       [](auto& job) { job.standardInPath = "/"; }},
      {"key \"StandardOutPath\": opening \"/\"", EISDIR,
       [](auto& job) { job.standardOutPath = "/"; }},
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

TEST_F(ProcessSpawnerTest, UnknownUsersAndGroupsAreErrors) {
  JobDefinition job = script("");
  job.userName = "no-such-user";
  EXPECT_EQ(refusal(job), "job \"com.example.job\": the user \"no-such-user\" does not exist");
  job.userName = ::getpwuid(::geteuid())->pw_name;
  job.groupName = "no-such-group";
  EXPECT_EQ(refusal(job), "job \"com.example.job\": the group \"no-such-group\" does not exist");
}

TEST_F(ProcessSpawnerTest, WithoutADescriptorForThePidfdThereIsNoFork) {
  JobDefinition job = script("");
  job.standardOutPath = job.standardErrorPath = "/dev/null";
  // The block holds nothing else: the sanitizers need descriptors for some of their checks.
  record_ = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
  const auto spawned = [&] {
    const DescriptorShortage shortage(DescriptorShortage::Left::kNone);
    return spawner_->spawn(job, {file_.get(), record_}, {});
  }();
  ASSERT_FALSE(spawned);
  EXPECT_EQ(platform::describe(spawned.error()),
            std::string("job \"com.example.job\": fork: ") + std::strerror(EMFILE));
}

TEST_F(ProcessSpawnerTest, ASocketIsNotPassedToAJobWithoutAService) {
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto spawned = spawn(script("echo ran"), {socket.get()});
  ASSERT_FALSE(spawned);
  EXPECT_EQ(spawned.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(output(), "");
}

// A process that never executes its program: its start is never recorded, because the pipe that it
// writes to is full and has no reader.
class UnexecutedProcess : public ProcessSpawnerTest {
 protected:
  static constexpr int kPipeBytes = 4096;

  UnexecutedProcess() {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reader_.reset(ends[0]);
    file_.reset(ends[1]);
    EXPECT_EQ(::fcntl(file_.get(), F_SETPIPE_SZ, kPipeBytes), kPipeBytes);
    const std::vector<char> filling(kPipeBytes, 'x');
    EXPECT_EQ(::write(file_.get(), filling.data(), filling.size()), kPipeBytes);
  }

  // Spawns while another thread runs `interfere` on the process, from when it is about to record
  // itself until spawn() returns.
  platform::Result<ProcessSpawner::Spawned> spawnWhile(
      const std::function<void(int process, const std::atomic<bool>& isOver)>& interfere) {
    const JobDefinition job = script("echo ran");
    record_ = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
    std::atomic<bool> isOver = false;
    std::thread thread([&] {
      int process = 0;
      while (!isOver && process == 0) process = recordedProcess();
      if (process != 0) interfere(process, isOver);
    });
    auto spawned = spawner_->spawn(job, {file_.get(), record_}, {});
    isOver = true;
    thread.join();
    return spawned;
  }

  UniqueFd reader_;

 private:
  // The new process writes the record byte by byte into this memory, the check last.
  int recordedProcess() const {
    std::vector<std::uint8_t> copy(record_.size());
    const volatile std::uint8_t* bytes = record_.data();
    for (std::uint8_t& byte : copy) byte = *bytes++;
    RecordHeader header;
    std::memcpy(&header, copy.data(), sizeof header);
    StartFields fields;
    std::memcpy(&fields, copy.data() + sizeof header, sizeof fields);
    return header.check == recordCheck(header, copy.data() + sizeof header) ? fields.process : 0;
  }
};

TEST_F(UnexecutedProcess, IsKilledAfterTheStartTimeOut) {
  auto spawner = ProcessSpawner::create(kDescriptorLimit, kHost, std::chrono::milliseconds(1));
  ASSERT_TRUE(spawner);
  spawner_.emplace(*std::move(spawner));
  EXPECT_THAT(refusal(script("echo ran")),
              EndsWith(": somebody killed the new process, or it had not come to its program after "
                       "0.001 s"));
  EXPECT_EQ(output(), "");
}

TEST_F(UnexecutedProcess, IsKilledAlsoWhileItIsKeptStopped) {
  // On a busy machine the process may end before the thread that is to stop it has run at all.
  int stops = 0;
  for (std::chrono::milliseconds startTimeOut(200); stops == 0; startTimeOut *= 2) {
    ASSERT_LT(startTimeOut, std::chrono::seconds(20)) << "nobody has stopped it";
    auto spawner = ProcessSpawner::create(kDescriptorLimit, kHost, startTimeOut);
    ASSERT_TRUE(spawner);
    spawner_.emplace(*std::move(spawner));
    const auto spawned = spawnWhile([&](int process, const std::atomic<bool>& isOver) {
      for (; !isOver; std::this_thread::yield()) stops += ::kill(process, SIGSTOP) == 0 ? 1 : 0;
    });
    ASSERT_FALSE(spawned);
    EXPECT_THAT(platform::describe(spawned.error()), HasSubstr("it had not come to its program"));
    expectReaped();
    EXPECT_EQ(output(), "");
  }
}

TEST_F(UnexecutedProcess, GoesOnHoweverOftenItIsStopped) {
  // The limit is long, so that a busy machine does not end the process meanwhile.
  auto spawner = ProcessSpawner::create(kDescriptorLimit, kHost, std::chrono::hours(1));
  ASSERT_TRUE(spawner);
  spawner_.emplace(*std::move(spawner));
  constexpr int kTimes = 2;
  int timesGoneOn = 0;
  const auto spawned = spawnWhile([&](int process, const std::atomic<bool>& isOver) {
    for (int i = 0; i < kTimes; ++i) {
      // Repeat the signal: a SIGCONT before the process has stopped cancels the stop.
      siginfo_t info{};
      while (info.si_pid == 0 && !isOver) {
        EXPECT_EQ(::kill(process, SIGSTOP), 0);
        const int options = WSTOPPED | WNOWAIT | WNOHANG;
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(process), &info, options), 0);
      }
      timesGoneOn +=
          ::waitid(P_PID, static_cast<id_t>(process), &info, WCONTINUED | WNOWAIT) == 0 ? 1 : 0;
    }
    char bytes[kPipeBytes];
    EXPECT_EQ(::read(reader_.get(), bytes, sizeof bytes), kPipeBytes);
  });
  ASSERT_TRUE(spawned) << platform::describe(spawned.error());
  EXPECT_EQ(timesGoneOn, kTimes);
  EXPECT_EQ(awaitEnd(*spawned), ExitStatus{});
  EXPECT_EQ(output(), "ran\n");
}

TEST_F(ProcessSpawnerTest, AnExecutedProgramHasNoTimers) {
  auto spawner = ProcessSpawner::create(kDescriptorLimit, kHost, std::chrono::minutes(1));
  ASSERT_TRUE(spawner);
  spawner_.emplace(*std::move(spawner));
  EXPECT_EQ(outputOfScript("cat /proc/$$/timers; echo end"), "end\n");
}

}  // namespace
}  // namespace jobhost
