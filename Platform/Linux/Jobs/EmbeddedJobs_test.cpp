#include "Platform/Linux/Jobs/EmbeddedJobs.h"

#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Linux/Jobs/EmbeddedJobs_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST_F(EmbeddedJobsTest, CallsShareOneConnection) {
  startHost(answering(Value()));
  EXPECT_TRUE(submit());
  EXPECT_TRUE(remove(false));
  EXPECT_TRUE(jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kLabel).isNil());
  EXPECT_THAT(host_->asked, ElementsAre("submitJob:", "removeJob:wait:", "copyJob:"));
  EXPECT_EQ(host_->connections, 1);
}

TEST_F(EmbeddedJobsTest, TheHostsErrorsArePassedOn) {
  startHost(failing(LaunchdError::kInvalidJob, "key \"Nice\""));
  expectError(submit(), LaunchdError::kInvalidJob, "key \"Nice\"");
  expectError(jobs_.copyJob(kLabel), LaunchdError::kInvalidJob, "key \"Nice\"");
  expectError(jobs_.copyJobStates(), LaunchdError::kInvalidJob, "key \"Nice\"");
  EXPECT_TRUE(isJobUnknown(jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kLabel)));
}

TEST_F(EmbeddedJobsTest, MalformedAnswersAreErrors) {
  for (const Value& answer : {Value(Array{}), Value(Array{1}), Value(Array{"6", "text"}),
                              Value(Array{6, 7}), Value(Array{6, "text", 1})}) {
    startHost(answering(answer));
    expectError(submit(), LaunchdError::kInternal, "malformed");
    host_->die();
  }
  startHost(answering("text"));
  expectError(jobs_.copyJob(kLabel), LaunchdError::kInternal, "malformed");
  expectError(jobs_.copyJobStates(), LaunchdError::kInternal, "malformed");
  host_->die();
  // The second page has the same label again.
  startHost(answering(Dictionary{{"a", Dictionary()}}));
  expectError(jobs_.copyJobStates(), LaunchdError::kInternal, "malformed");
}

TEST_F(EmbeddedJobsTest, AnAbsentHostIsWaitedForFiveSeconds) {
  EXPECT_EQ(timeOf([&] { expectError(submit(), LaunchdError::kUnavailable, "can't be reached"); }),
            5s);
}

TEST_F(EmbeddedJobsTest, AHostThatDoesNotAcceptIsReportedAsHung) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_EQ(timeOf([&] {
              expectError(submit(), LaunchdError::kInternal, "is there, but does not answer");
            }),
            5s);
}

TEST_F(EmbeddedJobsTest, AnAbsentHostIsNotWaitedForTwice) {
  const auto missing = [&] {
    expectError(submit(), LaunchdError::kUnavailable, "can't be reached");
  };
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(timeOf(missing), 5s);
    for (int call = 0; call < 3; ++call) EXPECT_EQ(timeOf(missing), 0s);
    client_.waitAgain();
    EXPECT_EQ(timeOf(missing), 5s);
    loop_.advanceBy(1h);
    EXPECT_EQ(timeOf(missing), 0s);
    startHost(answering(Value()));
    EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
    host_->die();
  }
}

TEST_F(EmbeddedJobsTest, AHostThatStartsInTimeIsCalled) {
  loop_.scheduleOutsideEvent(4900ms, [this] { startHost(answering(Value())); });
  EXPECT_TRUE(submit());
}

TEST_F(EmbeddedJobsTest, AHostThatStartsTooLateIsNotCalled) {
  loop_.scheduleOutsideEvent(5100ms, [this] { startHost(answering(Value())); });
  EXPECT_FALSE(submit());
}

TEST_F(EmbeddedJobsTest, AHostThatWasRestartedIsCalledAtOnce) {
  startHost(answering(Value()));
  EXPECT_TRUE(submit());
  host_->die();
  startHost(answering(Value()));
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
  EXPECT_THAT(host_->asked, ElementsAre("submitJob:"));
}

TEST_F(EmbeddedJobsTest, ARequestWhoseAnswerWasLostIsRepeated) {
  startHost([this](const PeerMessage&) { host_->die(); });
  loop_.scheduleOutsideEvent(1s, [this] { startHost(answering(Value())); });
  EXPECT_TRUE(submit());
}

TEST_F(EmbeddedJobsTest, AHostThatEndsEachTimeIsGivenUp) {
  startHost([this](const PeerMessage&) { host_->die(); });
  for (Duration at = 1s; at <= 20s; at += 1s) {
    loop_.scheduleOutsideEvent(at,
                               [this] { startHost([this](const PeerMessage&) { host_->die(); }); });
  }
  const Duration time = timeOf(
      [&] { expectError(submit(), LaunchdError::kUnavailable, "ended before it answered"); });
  EXPECT_GE(time, 5s);
  EXPECT_LE(time, 7s);
}

TEST_F(EmbeddedJobsTest, ARepeatedRemovalThatFindsNoJobHasSucceeded) {
  startHost([this](PeerMessage message) {
    if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
    host_->die();
  });
  loop_.scheduleOutsideEvent(
      1s, [this] { startHost(failing(LaunchdError::kNoSuchJob, "no such job")); });
  EXPECT_TRUE(remove());
  expectError(remove(), LaunchdError::kNoSuchJob, "no such job");
}

struct RemovalTime {
  Value exitTimeOut;
  Duration time;
};

TEST_F(EmbeddedJobsTest, ARemovalMayTakeAsLongAsTheExitTimeOut) {
  const std::vector<RemovalTime> table = {{Value(), 20s + 30s}, {5, 5s + 30s},
                                          {3599, 3599s + 30s},  {3600, 3600s + 30s},
                                          {3601, 3600s + 30s},  {0, 3600s + 30s}};
  for (const auto& [exitTimeOut, time] : table) {
    Dictionary job = *job_.dictionary();
    if (!exitTimeOut.isNil()) job.set("ExitTimeOut", exitTimeOut);
    startHost([&](PeerMessage message) {
      if (message.selector != kRemoveJobMessage) return answering(job)(std::move(message));
      kept_.push_back(std::move(message));
    });
    EXPECT_EQ(timeOf([&] { expectError(remove(), LaunchdError::kInternal, "did not answer"); }),
              time);
    kept_.clear();
    host_->die();
  }
}

TEST_F(EmbeddedJobsTest, ThereIsOneDomain) {
  startHost(answering(job_));
  expectError(jobs_.SMJobSubmit("kSMDomainUserLaunchd", job_, nullptr), LaunchdError::kUnavailable,
              "domain \"kSMDomainUserLaunchd\"");
  expectError(jobs_.SMJobRemove("", kLabel, nullptr, true), LaunchdError::kUnavailable,
              "domain \"\"");
  EXPECT_TRUE(jobs_.SMJobCopyDictionary("", kLabel).isNil());
  EXPECT_THAT(host_->asked, ElementsAre());
}

TEST_F(EmbeddedJobsTest, AValueThatCannotBeSentIsRejected) {
  startHost(answering(Value()));
  expectError(jobs_.SMJobSubmit(kSMDomainSystemLaunchd, Dictionary{{"Label", "\xff"}}, nullptr),
              LaunchdError::kInvalidJob, "could not be asked");
  EXPECT_THAT(host_->asked, ElementsAre());
}

TEST_F(EmbeddedJobsTest, AHostThatEndsInARequestIsReplaced) {
  startHost([this](PeerMessage message) {
    if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
    kept_.push_back(std::move(message));
  });
  loop_.scheduleOutsideEvent(15s, [this] { host_->die(); });
  loop_.scheduleOutsideEvent(16s, [this] { startHost(answering(Value())); });
  EXPECT_TRUE(submit());
}

TEST_F(EmbeddedJobsTest, AuthorizationIsGrantedAsTheHostSays) {
  const std::array<std::string_view, 1> rights{kSMRightModifySystemDaemons};
  for (const auto& [answer, status] : {std::pair{Value(true), 0},
                                       {Value(false), -60005},
                                       {Value(), -60005},
                                       {Value("yes"), -60005}}) {
    startHost(answering(answer));
    const auto created = authorization_.AuthorizationCreate(kAuthorizationFlagDefaults);
    ASSERT_TRUE(created);
    EXPECT_EQ(
        authorization_.AuthorizationCopyRights(**created, rights, kAuthorizationFlagExtendRights),
        status);
    host_->die();
  }
}

TEST_F(EmbeddedJobsTest, AHungHostGivesNoAuthorizationAndTheReason) {
  startHost(keeping());
  const auto created = authorization_.AuthorizationCreate(kAuthorizationFlagDefaults);
  ASSERT_FALSE(created);
  EXPECT_EQ(created.error(), kErrnoStatusBase + ETIMEDOUT);
}

}  // namespace
}  // namespace platform
