#pragma once

// The contract of every implementation of Jobs. A test program derives a machine from JobsMachine
// and instantiates the suite with a function that makes it:
//   INSTANTIATE_TEST_SUITE_P(Fake, JobsContract, testing::Values(&makeFakeMachine));

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Jobs/JobHistory_contract.h"
#include "Platform/Jobs/JobsAsync_contract.h"
#include "Platform/Jobs/JobsFixture_contract.h"

namespace platform {

TEST_P(JobsContract, ASubmittedJobRunsAtOnce) {
  submit(job(machine_->program()));
  EXPECT_TRUE(machine_->isRunning(process()));
  EXPECT_TRUE(copy()["LastExitStatus"].isNil());
}

TEST_P(JobsContract, TheDictionaryIsKeptWithAllItsKeys) {
  const Value dictionary = job(machine_->program(), {{"Unheard", Array{"of", 1, 2.5}}});
  submit(dictionary);
  for (const auto& [key, value] : *dictionary.dictionary()) EXPECT_EQ(copy()[key], value) << key;
}

TEST_P(JobsContract, AnUnknownJobIsNil) {
  EXPECT_TRUE(copy().isNil());
  submit(job(machine_->program()));
  EXPECT_TRUE(jobs_.SMJobCopyDictionary(kDomain, "com.example.other").isNil());
}

TEST_P(JobsContract, AnEndedProcessLeavesItsStatusAndNoNumber) {
  submit(job(machine_->program(), {{"KeepAlive", false}, {"RunAtLoad", true}}));
  machine_->kill(kLabel, process());
  EXPECT_TRUE(copy()["PID"].isNil());
  EXPECT_EQ(copy()["LastExitStatus"].integer(), SIGKILL);
}

TEST_P(JobsContract, AJobWithoutAThrottleIsStartedAgainAtOnce) {
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  const ProcessId first = process();
  machine_->kill(kLabel, first);
  machine_->awaitProcessAfter(kLabel, first);
  EXPECT_TRUE(machine_->isRunning(process()));
  EXPECT_EQ(copy()["LastExitStatus"].integer(), SIGKILL);
}

TEST_P(JobsContract, AThrottledJobStaysDownWhenItIsSubmittedAgain) {
  submit(job(machine_->program(), {{"ThrottleInterval", 3600}}));
  machine_->kill(kLabel, process());
  EXPECT_TRUE(copy()["PID"].isNil());
  submit(job(machine_->program(), {{"ThrottleInterval", 3600}, {"Again", true}}));
  EXPECT_TRUE(copy()["PID"].isNil());
  EXPECT_EQ(copy()["Again"], Value(true));
  EXPECT_EQ(copy()["LastExitStatus"].integer(), SIGKILL);
}

TEST_P(JobsContract, SubmittingAnExistingLabelLeavesItsProcessAlone) {
  submit(job(machine_->program()));
  const ProcessId first = process();
  submit(job(machine_->stubbornProgram(), {{"Again", true}}));
  EXPECT_EQ(process(), first);
  EXPECT_EQ(copy()["Again"], Value(true));
  EXPECT_EQ(copy()["Program"], Value(machine_->stubbornProgram()));
}

TEST_P(JobsContract, AProgramThatCannotBeExecutedLeavesNoJob) {
  const auto submitted = jobs_.SMJobSubmit(kDomain, job(machine_->unstartableProgram()), nullptr);
  expectError(submitted, LaunchdError::kInternal);
  EXPECT_THAT(submitted.error().localizedDescription,
              testing::AllOf(testing::HasSubstr(kLabel),
                             testing::HasSubstr(machine_->unstartableProgram())));
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, AnImpossibleDictionaryIsRefusedWithLabelAndKey) {
  const auto wrong =
      jobs_.SMJobSubmit(kDomain, job(machine_->program(), {{"RunAtLoad", 3}}), nullptr);
  expectError(wrong, LaunchdError::kInvalidJob);
  EXPECT_THAT(wrong.error().localizedDescription,
              testing::AllOf(testing::HasSubstr(kLabel), testing::HasSubstr("\"RunAtLoad\""),
                             testing::HasSubstr("expected a boolean")));
  EXPECT_TRUE(copy().isNil());
  expectError(jobs_.SMJobSubmit(kDomain, Dictionary{{"Label", kLabel}}, nullptr),
              LaunchdError::kInvalidJob);
  expectError(jobs_.SMJobSubmit(kDomain, Dictionary{{"Program", machine_->program()}}, nullptr),
              LaunchdError::kInvalidJob);
  expectError(jobs_.SMJobSubmit(kDomain, "a text", nullptr), LaunchdError::kInvalidJob);
}

TEST_P(JobsContract, ARefusedDictionaryLeavesTheJobUnchanged) {
  submit(job(machine_->program()));
  // Without what its processes use, which changes by itself.
  const auto definition = [&] {
    Dictionary copied = *copy().dictionary();
    copied.remove(kJobTreeKey);
    return Value(copied);
  };
  const Value before = definition();
  expectError(jobs_.SMJobSubmit(kDomain, job(machine_->program(), {{"RunAtLoad", 3}}), nullptr),
              LaunchdError::kInvalidJob);
  EXPECT_EQ(definition(), before);
}

TEST_P(JobsContract, AWaitingRemovalReturnsAfterTheProcessesEnd) {
  submit(job(machine_->program()));
  const ProcessId first = process();
  const auto removed = remove();
  EXPECT_TRUE(removed) << removed.error().localizedDescription;
  EXPECT_FALSE(machine_->isRunning(first));
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, AStubbornProcessIsKilledAfterTheExitTimeOut) {
  const ProcessId first = submitStubborn({{"ExitTimeOut", 1}});
  EXPECT_TRUE(remove());
  EXPECT_FALSE(machine_->isRunning(first));
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, ARemovalWithoutWaitingLeavesTheProcessItsTime) {
  const ProcessId first = submitStubborn();
  EXPECT_TRUE(remove(false));
  EXPECT_TRUE(machine_->isRunning(first));
  machine_->kill(kLabel, first);
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, ARemovedJobCanBeSubmittedAgain) {
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  EXPECT_TRUE(remove());
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  EXPECT_TRUE(machine_->isRunning(process()));
  EXPECT_TRUE(copy()["LastExitStatus"].isNil());
}

TEST_P(JobsContract, AThrottleOutlivesARemoval) {
  submit(job(machine_->program(), {{"ThrottleInterval", 3600}}));
  EXPECT_TRUE(remove());
  submit(job(machine_->program(), {{"ThrottleInterval", 3600}}));
  EXPECT_FALSE(copy().isNil());
  EXPECT_TRUE(copy()["PID"].isNil());
  submit(job(machine_->program(), {{"ThrottleInterval", 0}}));
  EXPECT_TRUE(machine_->isRunning(process()));
}

TEST_P(JobsContract, TheNextHostKnowsNoThrottleOfARemovedJob) {
  submit(job(machine_->program(), {{"ThrottleInterval", 3600}}));
  EXPECT_TRUE(remove());
  machine_->stopHost();
  machine_->startHost();
  submit(job(machine_->program(), {{"ThrottleInterval", 3600}}));
  EXPECT_TRUE(machine_->isRunning(process()));
}

TEST_P(JobsContract, AJobWithoutAProcessCanBeRemoved) {
  submit(job(machine_->program(), {{"KeepAlive", false}, {"RunAtLoad", true}}));
  machine_->kill(kLabel, process());
  EXPECT_TRUE(remove());
  EXPECT_TRUE(copy().isNil());
}

TEST_P(JobsContract, AJobCannotBeRemovedTwice) {
  expectError(remove(), LaunchdError::kNoSuchJob);
  submit(job(machine_->program()));
  EXPECT_TRUE(remove());
  expectError(remove(), LaunchdError::kNoSuchJob);
}

TEST_P(JobsContract, ThereIsOneDomain) {
  const auto submitted =
      jobs_.SMJobSubmit("kSMDomainUserLaunchd", job(machine_->program()), nullptr);
  expectError(submitted, LaunchdError::kUnavailable);
  EXPECT_THAT(submitted.error().localizedDescription, testing::HasSubstr("kSMDomainUserLaunchd"));
  submit(job(machine_->program()));
  expectError(jobs_.SMJobRemove("kSMDomainUserLaunchd", kLabel, nullptr, true),
              LaunchdError::kUnavailable);
  EXPECT_TRUE(jobs_.SMJobCopyDictionary("kSMDomainUserLaunchd", kLabel).isNil());
  EXPECT_FALSE(copy().isNil());
}

TEST_P(JobsContract, WithoutAHostEveryCallFails) {
  submit(job(machine_->program()));
  const ProcessId first = process();
  machine_->stopHost();
  expectError(jobs_.SMJobSubmit(kDomain, job(machine_->program()), nullptr),
              LaunchdError::kUnavailable);
  expectError(remove(), LaunchdError::kUnavailable);
  EXPECT_TRUE(isJobUnknown(copy()));
  EXPECT_TRUE(jobs_.SMJobCopyDictionary("kSMDomainUserLaunchd", kLabel).isNil());
  EXPECT_TRUE(machine_->isRunning(first));
  machine_->startHost();
  EXPECT_EQ(process(), first);
  EXPECT_FALSE(isJobUnknown(copy()));
}

TEST_P(JobsContract, CallsWaitForARestartingHost) {
  submit(job(machine_->program()));
  const ProcessId first = process();
  machine_->stopHost();
  machine_->startHostSoon();
  EXPECT_EQ(process(), first);
}

}  // namespace platform
