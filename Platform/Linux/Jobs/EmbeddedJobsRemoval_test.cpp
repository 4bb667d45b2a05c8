#include <expected>
#include <memory>
#include <optional>
#include <utility>

#include "Platform/Linux/Jobs/EmbeddedJobs_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

// A removal without blocking.

class AsynchronousRemovalTest : public EmbeddedJobsTest {
 protected:
  using Outcome = std::optional<std::expected<void, NSError>>;

  // Answers copies, and keeps the removals unanswered.
  ScriptedHost::Answer keepingRemovals() { return keepingRemovalsOf(job_); }
  ScriptedHost::Answer keepingRemovalsOf(const Value& job) {
    return [this, job](PeerMessage message) {
      if (message.selector == kCopyJobMessage) return answering(job)(std::move(message));
      kept_.push_back(std::move(message));
    };
  }
  // Answers copies, and dies at the removal.
  ScriptedHost::Answer dyingOfRemovals() {
    return [this](PeerMessage message) {
      if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
      host_->die();
    };
  }

  std::shared_ptr<Outcome> startRemoval() {
    auto removed = std::make_shared<Outcome>();
    jobs_.removeJob(kSMDomainSystemLaunchd, kLabel, nullptr, [removed](auto outcome) {
      EXPECT_FALSE(*removed);
      *removed = std::move(outcome);
    });
    EXPECT_FALSE(*removed);
    return removed;
  }
};

TEST_F(AsynchronousRemovalTest, AnAsynchronousRemovalDoesNotBlock) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.advanceBy(10s);
  EXPECT_FALSE(*removed);
  ASSERT_EQ(kept_.size(), 1u);
  EXPECT_TRUE(kept_[0].reply->answer(Value()));
  loop_.runReady();
  ASSERT_TRUE(*removed);
  EXPECT_TRUE(**removed);
}

TEST_F(AsynchronousRemovalTest, TheHostsErrorIsPassedOn) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.runReady();
  ASSERT_EQ(kept_.size(), 1u);
  failing(LaunchdError::kNoSuchJob, "no such job")(std::move(kept_[0]));
  loop_.runReady();
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kNoSuchJob, "no such job");
}

TEST_F(AsynchronousRemovalTest, TheRequestIsRepeatedWithTheNextHost) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.advanceBy(10s);  // longer than the restart time-out
  host_->die();
  loop_.advanceBy(4900ms);
  EXPECT_FALSE(*removed);
  startHost(answering(Value()));
  loop_.advanceBy(100ms);
  ASSERT_TRUE(*removed);
  EXPECT_TRUE(**removed);
  EXPECT_THAT(host_->asked, ElementsAre("removeJob:wait:"));
}

TEST_F(AsynchronousRemovalTest, ANextHostThatFindsNoJobHasRemovedIt) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.runReady();
  host_->die();
  startHost(failing(LaunchdError::kNoSuchJob, "no such job"));
  loop_.advanceBy(50ms);
  ASSERT_TRUE(*removed);
  EXPECT_TRUE(**removed);
}

TEST_F(AsynchronousRemovalTest, AHostThatDoesNotReturnIsGivenUpAfterFiveSeconds) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.runReady();
  host_->die();
  loop_.advanceBy(5s - 1ns);
  EXPECT_FALSE(*removed);
  loop_.advanceBy(50ms);
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kUnavailable, "can't be reached");
}

TEST_F(AsynchronousRemovalTest, AHostThatEndsEachTimeIsGivenUp) {
  startHost(dyingOfRemovals());
  const auto removed = startRemoval();
  for (Duration at = 1s; at <= 6s; at += 1s) {
    loop_.scheduleOutsideEvent(at, [this] { startHost(dyingOfRemovals()); });
  }
  loop_.advanceBy(4s);
  EXPECT_FALSE(*removed);
  loop_.advanceBy(3s);
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kUnavailable, "ended before it answered");
}

TEST_F(AsynchronousRemovalTest, TheConnectionOfADeadHostIsNotKept) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.runReady();
  host_->die();
  loop_.advanceBy(6s);
  ASSERT_TRUE(*removed);
  startHost(answering(Value()));
  const auto again = jobs_.SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, false);
  EXPECT_TRUE(again);
  EXPECT_EQ(host_->connections, 1);
}

TEST_F(AsynchronousRemovalTest, AllUnansweredRequestsAreRepeated) {
  startHost(keepingRemovals());
  const auto first = startRemoval();
  const auto second = startRemoval();
  loop_.runReady();
  ASSERT_EQ(kept_.size(), 2u);
  host_->die();
  startHost(answering(Value()));
  loop_.advanceBy(50ms);
  ASSERT_TRUE(*first && *second);
  EXPECT_TRUE(**first);
  EXPECT_TRUE(**second);
}

TEST_F(AsynchronousRemovalTest, ACallThatFindsTheHostDeadLosesNoRemoval) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.runReady();
  host_->die();
  startHost(answering(Value()));
  EXPECT_TRUE(submit());  // before the loop reports the death
  EXPECT_FALSE(*removed);
  loop_.advanceBy(50ms);
  ASSERT_TRUE(*removed);
  EXPECT_TRUE(**removed);
  EXPECT_EQ(host_->connections, 1);
}

TEST_F(AsynchronousRemovalTest, ARequestThatTimesOutIsNotRepeated) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.advanceBy(50s);
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kInternal, "did not answer within 50 s");
  EXPECT_EQ(kept_.size(), 1u);
}

TEST_F(AsynchronousRemovalTest, AHungHostDoesNotHoldUpTheLoop) {
  startHost(keeping());
  std::shared_ptr<Outcome> removed;
  EXPECT_EQ(timeOf([&] { removed = startRemoval(); }), 0s);
  loop_.runReady();
  ASSERT_EQ(kept_.size(), 2u);
  EXPECT_EQ(kept_[0].selector, kCopyJobMessage);
  EXPECT_EQ(kept_[1].selector, kRemoveJobMessage);
  loop_.advanceBy(80s - 1ns);  // 30 s for the copy, then as long as an unknown job may need
  EXPECT_FALSE(*removed);
  loop_.advanceBy(1ns);
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kInternal, "did not answer within 50 s");
  EXPECT_TRUE(kept_[1].reply->answer(Value()));  // A late answer is dropped.
  loop_.runReady();
}

TEST_F(AsynchronousRemovalTest, TheRequestComesBeforeThoseOfLaterCalls) {
  startHost(answering(Value()));
  EXPECT_TRUE(submit());
  host_->asked.clear();
  const auto removed = startRemoval();
  EXPECT_TRUE(submit());
  EXPECT_THAT(host_->asked, ElementsAre("copyJob:", "removeJob:wait:", "submitJob:"));
}

TEST_F(AsynchronousRemovalTest, AJobThatIsNeverKilledGetsAnHour) {
  startHost(keepingRemovalsOf(Dictionary{{"Label", kLabel}, {"ExitTimeOut", 0}}));
  const auto removed = startRemoval();
  loop_.advanceBy(1h);
  EXPECT_FALSE(*removed);
  loop_.advanceBy(30s);
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kInternal, "did not answer within 3630 s");
}

TEST_F(AsynchronousRemovalTest, AnotherDomainIsAnError) {
  std::optional<std::expected<void, NSError>> removed;
  jobs_.removeJob("kSMDomainUserLaunchd", kLabel, nullptr,
                  [&](auto outcome) { removed = std::move(outcome); });
  EXPECT_FALSE(removed);
  loop_.runReady();
  ASSERT_TRUE(removed);
  expectError(*removed, LaunchdError::kUnavailable, "kSMDomainUserLaunchd");
}

TEST_F(AsynchronousRemovalTest, AClientWithoutARestartTimeOutStillWaitsForARestart) {
  JobHostClient withoutTimeOut(transport_, loop_, kSocket, Duration::zero());
  EmbeddedJobs jobs(withoutTimeOut);
  startHost(keepingRemovals());
  std::optional<std::expected<void, NSError>> removed;
  jobs.removeJob(kSMDomainSystemLaunchd, kLabel, nullptr,
                 [&](auto outcome) { removed = std::move(outcome); });
  loop_.runReady();
  host_->die();
  loop_.advanceBy(2s);
  EXPECT_FALSE(removed);
  startHost(answering(Value()));
  loop_.advanceBy(50ms);
  ASSERT_TRUE(removed);
  EXPECT_TRUE(*removed);
}

}  // namespace
}  // namespace platform
