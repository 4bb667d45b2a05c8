#pragma once

// The contract of Jobs: its calls that do not block.

#include <expected>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Jobs/JobsFixture_contract.h"
#include "Platform/Values/VerifiedFile.h"

namespace platform {

TEST_P(JobsContract, AStartIsReported) {
  EXPECT_TRUE(copy().isNil());  // connects
  std::vector<std::string> started;
  const auto observation = jobs_.observeStarts(
      [&](std::string_view label, Jobs::Start) { started.emplace_back(label); });
  submit(job(machine_->program()));
  EXPECT_EQ(started.size(), 0u);  // never from inside a call
  machine_->runUntil([&] { return !started.empty(); });
  EXPECT_THAT(started, testing::ElementsAre(kLabel));
}

TEST_P(JobsContract, ARestartIsReported) {
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  const ProcessId first = process();
  ProcessId reported = first;
  const auto observation =
      jobs_.observeStarts([&](std::string_view, Jobs::Start) { reported = process(); });
  ASSERT_EQ(process(), first);  // The host gets requests in order, so it has the subscription.
  machine_->kill(kLabel, first);
  machine_->runUntil([&] { return reported != first; });
}

TEST_P(JobsContract, ADroppedObserverIsNotCalled) {
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  std::string first, second;
  auto dropped = jobs_.observeStarts([&](std::string_view label, Jobs::Start) { first = label; });
  const auto kept =
      jobs_.observeStarts([&](std::string_view label, Jobs::Start) { second = label; });
  dropped.reset();
  machine_->kill(kLabel, process());
  machine_->runUntil([&] { return !second.empty(); });
  EXPECT_EQ(first, "");
}

TEST_P(JobsContract, AnObserverMayEndItself) {
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  int calls = 0;
  std::unique_ptr<RunLoopHandle> observation =
      jobs_.observeStarts([&](std::string_view, Jobs::Start) {
        ++calls;
        observation.reset();
      });
  std::string other;
  const auto kept =
      jobs_.observeStarts([&](std::string_view label, Jobs::Start) { other = label; });
  for (int i = 0; i < 2; ++i) {
    other.clear();
    machine_->kill(kLabel, process());
    machine_->runUntil([&] { return !other.empty(); });
  }
  EXPECT_EQ(calls, 1);
}

TEST_P(JobsContract, ObserversSurviveARestartOfTheHost) {
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  int reports = 0;
  const auto observation = jobs_.observeStarts([&](std::string_view, Jobs::Start) { ++reports; });
  machine_->kill(kLabel, process());
  machine_->runUntil([&] { return reports > 0; });
  machine_->runBriefly();
  const int before = reports;
  machine_->stopHost();
  machine_->startHost();
  // The first of these may happen before the observer has reached the new host.
  for (int i = 0; i < 100 && reports == before; ++i) {
    const ProcessId last = process();
    machine_->kill(kLabel, last);
    machine_->awaitProcessAfter(kLabel, last);
    machine_->runBriefly();
  }
  EXPECT_GT(reports, before);
}

TEST_P(JobsContract, AChangedProgramIsReportedToEachNewConnection) {
  const Dictionary restarted{{"ThrottleInterval", 0}};
  submit(job(machine_->program(), restarted));
  const ProcessId first = process();
  VerifiedFile other;
  other.digestName = "SHA256";
  other.digest = {1};
  Dictionary changed = restarted;
  changed.set(kJobVerifiedProgramKey, textOfVerifiedFile(other));
  submit(job(machine_->program(), changed));
  machine_->kill(kLabel, first);
  ASSERT_EQ(copy()[kJobProgramChangedKey], Value(true));
  std::vector<std::string> reported;
  const auto observation = jobs_.observeStarts([&](std::string_view label, Jobs::Start start) {
    if (start == Jobs::Start::kProgramChanged) reported.emplace_back(label);
  });
  machine_->runUntil([&] { return !reported.empty(); });
  machine_->stopHost();
  machine_->startHost();
  machine_->runUntil([&] { return reported.size() > 1; });
  EXPECT_THAT(reported, testing::Each(kLabel));
}

TEST_P(JobsContract, AFailedStartOfAKnownJobIsTheAnswer) {
  const Dictionary once{{"KeepAlive", false}, {"RunAtLoad", true}, {"ThrottleInterval", 0}};
  submit(job(machine_->program(), once));
  machine_->kill(kLabel, process());
  expectError(jobs_.SMJobSubmit(kDomain, job(machine_->unstartableProgram(), once), nullptr),
              LaunchdError::kInternal);
  EXPECT_EQ(copy()["Program"], Value(machine_->unstartableProgram()));
}

TEST_P(JobsContract, ASubmissionThatDoesNotBlockStartsTheJob) {
  const auto submitted = await(submitLater(job(machine_->program())));
  EXPECT_TRUE(submitted) << submitted.error().localizedDescription;
  EXPECT_TRUE(machine_->isRunning(process()));
}

TEST_P(JobsContract, ACopyAfterASubmissionHasItsProcess) {
  const Outcome submitted = submitLater(job(machine_->program()));
  const Value copied = await(copyLater());
  EXPECT_TRUE(await(submitted));
  EXPECT_EQ(copied["PID"], Value(process()));
}

TEST_P(JobsContract, ASubmissionThatDoesNotBlockFailsLikeTheOther) {
  expectError(await(submitLater(job(machine_->unstartableProgram()))), LaunchdError::kInternal);
  expectError(await(submitLater(Dictionary{{"Label", kLabel}})), LaunchdError::kInvalidJob);
  expectError(await(submitLater(job(machine_->program()), "kSMDomainUserLaunchd")),
              LaunchdError::kUnavailable);
  EXPECT_TRUE(await(copyLater()).isNil());
  EXPECT_TRUE(await(copyLater("kSMDomainUserLaunchd")).isNil());
  machine_->stopHost();
  expectError(await(submitLater(job(machine_->program()))), LaunchdError::kUnavailable);
  EXPECT_TRUE(isJobUnknown(await(copyLater())));
}

TEST_P(JobsContract, TheStatesOfAllJobsComeInPages) {
  std::vector<std::string> labels;
  for (const char* name : {"a", "b", "c"}) {
    Dictionary some = *job(machine_->program()).dictionary();
    some.set("Label", name);
    submit(some);
    labels.emplace_back(name);
  }
  std::vector<std::string> copied;
  for (std::string last;;) {
    const Value page =
        await(later<Value>([&](auto answer) { jobs_.copyStatesAfter(last, std::move(answer)); }));
    ASSERT_TRUE(page.dictionary());
    if (page.dictionary()->empty()) break;
    for (const auto& [label, state] : *page.dictionary()) {
      EXPECT_EQ(state["PID"], jobs_.SMJobCopyDictionary(kDomain, label)["PID"]);
      EXPECT_EQ(state["History"]["Starts"], Value(1));
      EXPECT_TRUE(state["Label"].isNil());
      copied.push_back(last = label);
    }
  }
  EXPECT_EQ(copied, labels);
  machine_->stopHost();
  EXPECT_TRUE(await(later<Value>([&](auto answer) {
                jobs_.copyStatesAfter("", std::move(answer));
              })).isNil());
}

TEST_P(JobsContract, RequestsWithoutAHostKeepTheirOrder) {
  EXPECT_TRUE(copy().isNil());  // connects
  machine_->stopHost();
  const Outcome first = submitLater(job(machine_->program()));
  const Copy copied = copyLater();
  const Outcome removed = removeLater();
  const Copy last = copyLater();
  machine_->startHostSoon();
  EXPECT_TRUE(await(first));
  EXPECT_FALSE(await(copied)["PID"].isNil());
  EXPECT_TRUE(await(removed));
  await(last);
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, AnyNumberOfRequestsMayBeUnderWay) {
  submit(job(machine_->program()));
  std::vector<Copy> copies;
  for (int i = 0; i < 500; ++i) copies.push_back(copyLater());
  const Value expected(process());
  for (const Copy& copied : copies) EXPECT_EQ(await(copied)["PID"], expected);
}

TEST_P(JobsContract, ASubmissionDuringARemovalIsDoneAfterIt) {
  const Value unthrottled = job(machine_->program(), {{"ThrottleInterval", 0}});
  submit(unthrottled);
  const ProcessId first = process();
  const Outcome removed = removeLater();
  const Outcome submitted = submitLater(unthrottled);
  EXPECT_TRUE(await(removed));
  EXPECT_TRUE(await(submitted));
  EXPECT_NE(process(), first);
}

TEST_P(JobsContract, AnAsynchronousRemovalIsDoneAfterTheProcessesEnd) {
  submit(job(machine_->program()));
  const ProcessId first = process();
  const auto removed = await(removeLater());
  EXPECT_TRUE(removed) << removed.error().localizedDescription;
  EXPECT_FALSE(machine_->isRunning(first));
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, TheHostAnswersWhileARemovalWaits) {
  const ProcessId first = submitStubborn({{"ExitTimeOut", 0}});
  const Outcome removed = removeLater();
  machine_->runBriefly();
  EXPECT_FALSE(*removed);
  EXPECT_EQ(process(), first);
  Dictionary other = *job(machine_->program()).dictionary();
  other.set("Label", "com.example.other");
  submit(other);
  EXPECT_TRUE(jobs_.SMJobRemove(kDomain, "com.example.other", nullptr, true));
  EXPECT_FALSE(*removed);
  machine_->kill(kLabel, first);
  EXPECT_TRUE(await(removed));
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, AnAsynchronousRemovalKillsAStubbornProcess) {
  const ProcessId first = submitStubborn({{"ExitTimeOut", 1}});
  EXPECT_TRUE(await(removeLater()));
  EXPECT_FALSE(machine_->isRunning(first));
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, TwoRemovalsOfAJobAreBothDone) {
  const ProcessId first = submitStubborn({{"ExitTimeOut", 0}});
  const Outcome one = removeLater();
  const Outcome two = removeLater();
  machine_->runBriefly();
  machine_->kill(kLabel, first);
  EXPECT_TRUE(await(one));
  EXPECT_TRUE(await(two));
}

TEST_P(JobsContract, ARemovalThatDoesNotBlockFailsLikeTheOther) {
  expectError(await(removeLater()), LaunchdError::kNoSuchJob);
  expectError(await(removeLater("kSMDomainUserLaunchd")), LaunchdError::kUnavailable);
  submit(job(machine_->program()));
  machine_->stopHost();
  expectError(await(removeLater()), LaunchdError::kUnavailable);
  machine_->startHost();
  EXPECT_TRUE(await(removeLater()));
}

TEST_P(JobsContract, ARemovalGoesOnWithTheNextHost) {
  const ProcessId first = submitStubborn({{"ExitTimeOut", 0}});
  const Outcome removed = removeLater();
  machine_->runBriefly();
  machine_->stopHost();
  machine_->startHost();
  machine_->runBriefly();
  EXPECT_FALSE(*removed);
  machine_->kill(kLabel, first);
  EXPECT_TRUE(await(removed));
  EXPECT_TRUE(copy().isNil());
}

}  // namespace platform
