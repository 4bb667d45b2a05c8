#pragma once

// The contract of every implementation of Processes. A test program derives a ProcessesHarness,
// which makes jobs and ends their processes, and instantiates:
//   INSTANTIATE_TEST_SUITE_P(Fake, ProcessesContract, testing::Values(&makeFakeHarness));

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/Processes/Processes.h"
#include "JobHost/State/StateReader.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {

class ProcessesHarness {
 public:
  enum class Kind { kAlone, kWithMember, kUnstartable };

  virtual ~ProcessesHarness() = default;

  virtual platform::RunLoop& loop() = 0;
  virtual Processes& processes() = 0;

  // A job whose process lives until it is ended, alone or with another process of its group that
  // outlives it, or a job whose program can't be executed.
  virtual JobDefinition job(Kind kind) = 0;
  // Called when the process of job() was started.
  virtual void started(platform::ProcessId process, const JobDefinition& job) = 0;

  // Ends the process and returns when it has ended.
  virtual void end(platform::ProcessId process, platform::ExitStatus status) = 0;

  // Lets another host start the process, and kills that host.
  virtual platform::ProcessId startElsewhere(const JobDefinition& job,
                                             const StartTicket& ticket) = 0;
};

class ProcessesContract : public testing::TestWithParam<std::unique_ptr<ProcessesHarness> (*)()> {
 protected:
  using Kind = ProcessesHarness::Kind;
  using Status = platform::ExitStatus;
  static constexpr Status kKilled{Status::Kind::kSignalled, SIGKILL};

  ProcessesContract() {
    file_.reset(::open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    EXPECT_TRUE(file_);
  }

  Processes& processes() { return harness_->processes(); }

  Processes::OnEnd reporting() {
    return [this](Ending ending) { ends_.push_back(ending); };
  }

  StartTicket makeTicket(const JobDefinition& job) {
    record_ = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
    return {file_.get(), record_};
  }
  StartFields recorded() const {
    StartFields fields;
    std::memcpy(&fields, record_.data() + sizeof(RecordHeader), sizeof fields);
    return fields;
  }

  std::string contents() const { return platform::contentOfFile(path_); }

  // The handles live as long as the test.
  JobProcess& hold(platform::Result<std::unique_ptr<JobProcess>> process) {
    EXPECT_TRUE(process) << platform::describe(process.error());
    return *held_.emplace_back(*std::move(process));
  }
  JobProcess& start(Kind kind, platform::Descriptor listener = -1) {
    JobDefinition job = harness_->job(kind);
    std::vector<platform::Descriptor> listeners;
    if (listener >= 0) {
      job.machServices = {"com.example.service"};
      listeners = {listener};
    }
    JobProcess& process = hold(processes().start(job, makeTicket(job), listeners, reporting()));
    harness_->started(process.identity().process, job);
    return process;
  }
  void end(JobProcess& process, platform::ExitStatus status) {
    harness_->end(process.identity().process, status);
  }
  StartFields startElsewhere(Kind kind) {
    const JobDefinition job = harness_->job(kind);
    const auto process = harness_->startElsewhere(job, makeTicket(job));
    harness_->started(process, job);
    // The other host's process has completed the record in the file.
    const std::string bytes = contents();
    EXPECT_EQ(bytes.size(), record_.size());
    record_.assign(bytes.begin(), bytes.end());
    EXPECT_EQ(recorded().process, process);
    return recorded();
  }

  // Runs the loop until `holds` is true, and all callbacks that are ready then.
  void runUntil(const std::function<bool()>& holds) {
    using namespace std::chrono_literals;
    platform::RunLoop& loop = harness_->loop();
    const auto poll = loop.startTimer(1ms, platform::RunLoop::Repeat::kEvery, [&] {
      if (holds()) loop.stop();
    });
    const auto deadline = loop.startTimer(60s, platform::RunLoop::Repeat::kOnce, [&] {
      ADD_FAILURE() << "it never came to hold";
      loop.stop();
    });
    loop.run();
  }
  void runToEnds(std::size_t count) {
    runUntil([&] { return ends_.size() >= count; });
    EXPECT_EQ(ends_.size(), count);
  }

  // Expects that neither the process nor any of its group lives.
  void expectGone(const StartFields& identity) {
    const auto refused = processes().takeOver(identity, reporting());
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, platform::ErrorCode::kNotFound);
    EXPECT_FALSE(processes().remainsOf(identity));
  }

  platform::TemporaryFolder root_;
  const std::string path_ = root_.path("state");
  platform::UniqueFd file_;
  std::vector<std::uint8_t> record_;
  std::vector<Ending> ends_;
  std::unique_ptr<ProcessesHarness> harness_ = GetParam()();
  std::vector<std::unique_ptr<JobProcess>> held_;
};

TEST_P(ProcessesContract, AStartedProcessIsOnRecord) {
  JobProcess& process = start(Kind::kAlone);
  EXPECT_EQ(recorded(), process.identity());
  EXPECT_NE(recorded().startTicks, 0);
  EXPECT_EQ(contents(), std::string(record_.begin(), record_.end()));
  EXPECT_FALSE(process.hasRemainingProcesses());
  runToEnds(0);
}

TEST_P(ProcessesContract, HowAProcessEndedIsReportedOnce) {
  for (const Status status : {Status{Status::Kind::kExited, 0}, Status{Status::Kind::kExited, 255},
                              Status{Status::Kind::kSignalled, SIGTERM}, kKilled}) {
    JobProcess& process = start(Kind::kAlone);
    end(process, status);
    EXPECT_TRUE(ends_.empty());
    runToEnds(1);
    EXPECT_EQ(ends_, std::vector<Ending>{status});
    EXPECT_FALSE(process.hasRemainingProcesses());
    ends_.clear();
  }
}

TEST_P(ProcessesContract, AnEndThatHasHappenedIsReportedAtOnceOnRequest) {
  JobProcess& process = start(Kind::kAlone);
  process.reportIfEnded();
  EXPECT_TRUE(ends_.empty());
  end(process, kKilled);
  process.reportIfEnded();
  EXPECT_EQ(ends_, std::vector<Ending>{kKilled});
  process.reportIfEnded();
  runToEnds(1);
}

TEST_P(ProcessesContract, AnEndIsReportedBeforeAnythingLessUrgent) {
  JobProcess& process = start(Kind::kAlone);
  std::vector<std::size_t> endsAt;
  const auto note = [&] { endsAt.push_back(ends_.size()); };
  harness_->loop().post(note);
  harness_->loop().post(note, platform::Urgency::kConnectionDeath);
  end(process, kKilled);
  runToEnds(1);
  EXPECT_EQ(endsAt, std::vector<std::size_t>(2, 1));
}

TEST_P(ProcessesContract, AReportMayStartTheNextProcess) {
  const JobDefinition job = harness_->job(Kind::kAlone);
  JobProcess& first = hold(processes().start(job, makeTicket(job), {}, [this](Ending ending) {
    ends_.push_back(ending);
    JobProcess& next = start(Kind::kAlone);
    end(next, kKilled);
  }));
  harness_->started(first.identity().process, job);
  end(first, {Status::Kind::kExited, 1});
  runToEnds(2);
  EXPECT_EQ(ends_[1], Ending(kKilled));
}

TEST_P(ProcessesContract, AProgramThatCannotBeExecutedLeavesNoProcess) {
  const JobDefinition job = harness_->job(Kind::kUnstartable);
  const auto refused = processes().start(job, makeTicket(job), {}, reporting());
  ASSERT_FALSE(refused);
  EXPECT_NE(platform::describe(refused.error()), "");
  if (recorded().process != 0) expectGone(recorded());
  runToEnds(0);
}

TEST_P(ProcessesContract, AProcessThatCannotBeRecordedIsStartedAllTheSame) {
  for (const char* path : {"/dev/full", ""}) {
    file_.reset(*path != 0 ? ::open(path, O_WRONLY | O_CLOEXEC) : -1);
    const JobDefinition job = harness_->job(Kind::kAlone);
    int writeError = -1;
    StartTicket ticket = makeTicket(job);
    ticket.writeError = &writeError;
    JobProcess& process = hold(processes().start(job, ticket, {}, reporting()));
    harness_->started(process.identity().process, job);
    EXPECT_EQ(writeError, *path != 0 ? ENOSPC : 0);
    EXPECT_EQ(recorded(), process.identity());
    end(process, kKilled);
    runToEnds(1);
    ends_.clear();
  }
}

TEST_P(ProcessesContract, AProcessIsFoundByItsMark) {
  const StartFields identity = startElsewhere(Kind::kAlone);
  JobProcess& own = start(Kind::kAlone);
  std::vector<Processes::Marked> seen;
  const auto find = [&] {
    seen.clear();
    return processes().findMarked([&](const Processes::Marked& marked) {
      seen.push_back(marked);
      return marked.process == identity.process;
    });
  };
  // The kernel shows the environment of a program a moment after it was executed.
  auto found = find();
  runUntil([&] {
    if (seen.size() < 2) found = find();
    return seen.size() == 2;
  });
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 1);
  MarkedProcess& process = *found->front();
  EXPECT_EQ(process.identity(), identity);
  EXPECT_TRUE(process.isLeader());
  EXPECT_FALSE(process.hasEnded());
  for (const auto& marked : seen) {
    EXPECT_EQ(marked.leader, marked.process);
    EXPECT_EQ(marked.group, marked.process);
    EXPECT_THAT(marked.user, testing::AnyOf(0, ::geteuid()));
    EXPECT_THAT(marked.label, testing::StartsWith("com.example.job"));
  }
  EXPECT_TRUE(process.signal(SIGTERM));
  runUntil([&] { return process.hasEnded(); });
  end(own, kKilled);
  runToEnds(1);
  const auto after = processes().findMarked([](const auto&) { return true; });
  ASSERT_TRUE(after);
  EXPECT_EQ(after->size(), 0);
}

TEST_P(ProcessesContract, TheListenerIsDescriptorThreeAndCanBeCopiedBack) {
  JobProcess& process = start(Kind::kAlone, file_.get());
  const platform::UniqueFd copy = process.copyDescriptor(3);
  ASSERT_TRUE(copy);
  struct stat given{};
  struct stat had{};
  ASSERT_EQ(::fstat(file_.get(), &given), 0);
  ASSERT_EQ(::fstat(copy.get(), &had), 0);
  EXPECT_EQ(had.st_ino, given.st_ino);
  EXPECT_EQ(had.st_dev, given.st_dev);
  EXPECT_NE(::fcntl(copy.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_FALSE(process.copyDescriptor(99));
  end(process, kKilled);
  runToEnds(1);
  EXPECT_FALSE(process.copyDescriptor(3));
}

TEST_P(ProcessesContract, ASignalReachesTheProcess) {
  JobProcess& process = start(Kind::kAlone);
  EXPECT_TRUE(process.signalGroup(SIGTERM));
  runToEnds(1);
  EXPECT_EQ(ends_[0], Ending(Status{Status::Kind::kSignalled, SIGTERM}));
  EXPECT_FALSE(process.hasRemainingProcesses());
}

TEST_P(ProcessesContract, RemainingProcessesLiveUntilTheyAreKilled) {
  JobProcess& process = start(Kind::kWithMember);
  EXPECT_FALSE(process.hasRemainingProcesses());
  end(process, {Status::Kind::kExited, 0});
  runToEnds(1);
  EXPECT_TRUE(process.hasRemainingProcesses());
  EXPECT_TRUE(process.signalGroup(SIGKILL));
  runUntil([&] { return !process.hasRemainingProcesses(); });
  EXPECT_EQ(ends_.size(), 1);
  EXPECT_TRUE(process.signalGroup(SIGKILL));  // There is none.
}

TEST_P(ProcessesContract, AHandleMayBeDestroyedInItsReport) {
  const JobDefinition job = harness_->job(Kind::kAlone);
  JobProcess& process = hold(processes().start(job, makeTicket(job), {}, [this](Ending ending) {
    ends_.push_back(ending);
    held_.clear();
  }));
  harness_->started(process.identity().process, job);
  end(process, kKilled);
  runToEnds(1);
}

TEST_P(ProcessesContract, TheEndOfATakenOverProcessIsReportedAsUnknown) {
  const StartFields identity = startElsewhere(Kind::kAlone);
  JobProcess& process = hold(processes().takeOver(identity, reporting()));
  EXPECT_EQ(process.identity(), identity);
  process.reportIfEnded();
  runToEnds(0);
  end(process, {Status::Kind::kExited, 0});
  EXPECT_TRUE(ends_.empty());
  runToEnds(1);
  EXPECT_EQ(ends_[0], Ending());
}

TEST_P(ProcessesContract, RemainingProcessesOfAProcessTakenOverAreFound) {
  JobProcess& process = hold(processes().takeOver(startElsewhere(Kind::kWithMember), reporting()));
  EXPECT_FALSE(process.hasRemainingProcesses());
  end(process, {Status::Kind::kExited, 0});
  runToEnds(1);
  EXPECT_EQ(ends_[0], Ending());
  // This holds whether or not its parent has reaped it yet.
  EXPECT_TRUE(process.hasRemainingProcesses());
  EXPECT_TRUE(process.signalGroup(SIGKILL));
  runUntil([&] { return !process.hasRemainingProcesses(); });
}

TEST_P(ProcessesContract, TheRemainingProcessesOfAnotherHostAreKilled) {
  const StartFields identity = startElsewhere(Kind::kWithMember);
  harness_->end(identity.process, {Status::Kind::kExited, 0});
  const auto remains = processes().remainsOf(identity);
  ASSERT_TRUE(remains);
  EXPECT_TRUE(remains->hasRemainingProcesses());
  EXPECT_TRUE(remains->signalGroup(SIGTERM));
  runUntil([&] { return !remains->hasRemainingProcesses(); });
  EXPECT_FALSE(processes().remainsOf(identity));
  runToEnds(0);
}

TEST_P(ProcessesContract, AReusedNumberIsNotTakenOver) {
  const StartFields identity = startElsewhere(Kind::kAlone);
  StartFields later = identity;
  ++later.startTicks;
  std::vector<StartFields> others{later};
  if (identity.pidfdInode != 0) {
    StartFields another = identity;
    ++another.pidfdInode;
    others.push_back(another);
  }
  for (const StartFields& other : others) {
    const auto refused = processes().takeOver(other, reporting());
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, platform::ErrorCode::kNotFound);
  }
  harness_->end(identity.process, kKilled);
  runToEnds(0);
}

TEST_P(ProcessesContract, AProcessThatHasEndedIsNotTakenOver) {
  JobProcess& process = start(Kind::kAlone);
  end(process, kKilled);
  runToEnds(1);
  expectGone(recorded());
  runToEnds(1);
}

}  // namespace jobhost
