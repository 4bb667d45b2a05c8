#include "Platform/Linux/EmbeddedJobs.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/EmbeddedAuthorization.h"
#include "Platform/Linux/JobHostClient.h"
#include "Platform/Linux/JobHostMessages.h"
#include "Platform/Testing/FakePeerTransport.h"
#include "Platform/Testing/VirtualRunLoop.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kSocket[] = "/run/vantor/launchd";
constexpr char kLabel[] = "com.example.agent";

// A job host that answers as the test says.
class ScriptedHost {
 public:
  using Answer = std::function<void(PeerMessage)>;

  ScriptedHost(FakePeerNetwork& network, Answer answer)
      : transport_(network, PeerCredentials{1, 0, 0}), answer_(std::move(answer)) {
    auto listener = transport_.listen(kSocket, {}, [this](std::unique_ptr<PeerConnection> peer) {
      ++connections;
      peer->admit();
      peer->setHandlers({.message =
                             [this](PeerMessage message) {
                               asked.push_back(message.selector);
                               answer_(std::move(message));
                             },
                         .death = {}});
      peers_.push_back(std::move(peer));
    });
    EXPECT_TRUE(listener);
    if (listener) listener_ = *std::move(listener);
  }

  void die() { transport_.die(); }
  void hang() { transport_.hang(); }
  void goOn() { transport_.goOn(); }

  std::vector<std::string> asked;
  int connections = 0;

 private:
  FakePeerTransport transport_;
  Answer answer_;
  std::unique_ptr<PeerListener> listener_;
  std::vector<std::unique_ptr<PeerConnection>> peers_;
};

class EmbeddedJobsTest : public testing::Test {
 protected:
  static ScriptedHost::Answer answering(Value value) {
    return [value = std::move(value)](const PeerMessage& message) {
      EXPECT_TRUE(message.reply->answer(value));
    };
  }
  static ScriptedHost::Answer failing(LaunchdError code, std::string text) {
    return answering(
        failureAnswer({kCFErrorDomainLaunchd, static_cast<int>(code), std::move(text)}));
  }
  // Keeps the questions, and answers none.
  ScriptedHost::Answer keeping() {
    return [this](PeerMessage message) { kept_.push_back(std::move(message)); };
  }

  void startHost(ScriptedHost::Answer answer) {
    kept_.clear();  // They are the old host's, and end with it.
    host_ = std::make_unique<ScriptedHost>(network_, std::move(answer));
  }

  auto submit() { return jobs_.SMJobSubmit(kSMDomainSystemLaunchd, job_, nullptr); }
  auto remove(bool wait = true) {
    return jobs_.SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, wait);
  }

  template <typename T>
  static void expectError(const std::expected<T, NSError>& result, LaunchdError code,
                          const std::string& text) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().domain, kCFErrorDomainLaunchd);
    EXPECT_EQ(result.error().code, static_cast<int>(code));
    EXPECT_THAT(result.error().localizedDescription, HasSubstr(text));
  }

  // How long a call blocks.
  template <typename Call>
  Duration timeOf(Call call) {
    const Instant before = loop_.now();
    call();
    return loop_.now() - before;
  }

  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, PeerCredentials{50, 0, 0}};
  JobHostClient client_{transport_, loop_, kSocket};
  EmbeddedJobs jobs_{client_};
  EmbeddedAuthorization authorization_{client_};
  std::unique_ptr<ScriptedHost> host_;
  std::vector<PeerMessage> kept_;
  const Value job_ = Dictionary{{"Label", kLabel}, {"Program", "/opt/agent"}};
};

TEST_F(EmbeddedJobsTest, CallsShareOneConnection) {
  startHost(answering(Value()));
  EXPECT_TRUE(submit());
  EXPECT_TRUE(remove(false));
  EXPECT_TRUE(jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kLabel).isNil());
  EXPECT_THAT(host_->asked, ElementsAre("submitJob:", "removeJob:wait:", "copyJob:"));
  EXPECT_EQ(host_->connections, 1);
}

TEST_F(EmbeddedJobsTest, TheHostsErrorsAreHandedOn) {
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
}

TEST_F(EmbeddedJobsTest, AHostThatIsNotThereIsWaitedForFiveSeconds) {
  EXPECT_EQ(timeOf([&] { expectError(submit(), LaunchdError::kUnavailable, "can't be reached"); }),
            5s);
}

TEST_F(EmbeddedJobsTest, AHostThatIsThereAndAcceptsNobodyIsSaidToBeThere) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_EQ(timeOf([&] {
              expectError(submit(), LaunchdError::kInternal, "is there, but does not answer");
            }),
            5s);
}

TEST_F(EmbeddedJobsTest, AHostThatComesInTimeIsAsked) {
  loop_.scheduleOutsideEvent(4900ms, [this] { startHost(answering(Value())); });
  EXPECT_TRUE(submit());
}

TEST_F(EmbeddedJobsTest, AHostThatComesTooLateIsNot) {
  loop_.scheduleOutsideEvent(5100ms, [this] { startHost(answering(Value())); });
  EXPECT_FALSE(submit());
}

TEST_F(EmbeddedJobsTest, AHostThatWasRestartedMeanwhileIsAskedAtOnce) {
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

TEST_F(EmbeddedJobsTest, ARemovalThatIsRepeatedAndFindsNoJobHasBeenDone) {
  startHost([this](PeerMessage message) {
    if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
    host_->die();
  });
  loop_.scheduleOutsideEvent(
      1s, [this] { startHost(failing(LaunchdError::kNoSuchJob, "no such job")); });
  EXPECT_TRUE(remove());
  expectError(remove(), LaunchdError::kNoSuchJob, "no such job");
}

TEST_F(EmbeddedJobsTest, AHostThatIsStuckIsGivenUp) {
  startHost(keeping());
  EXPECT_EQ(
      timeOf([&] { expectError(submit(), LaunchdError::kInternal, "did not answer within 30 s"); }),
      30s + JobHostClient::kLifeSignTime);
}

TEST_F(EmbeddedJobsTest, AHostThatIsStuckCostsOneWaitHoweverManyLabelsAreAskedFor) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  EXPECT_EQ(
      timeOf([&] {
        for (int i = 0; i < 1000; ++i) {
          expectError(jobs_.copyJob(kLabel), LaunchdError::kInternal, "does not answer");
          expectError(remove(), LaunchdError::kInternal, "does not answer");
          EXPECT_TRUE(isJobUnknown(jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kLabel)));
        }
      }),
      0s);
  EXPECT_EQ(kept_.size(), 2u);  // The first, and one for a sign of life.
  // However much later.
  loop_.advanceBy(1h);
  EXPECT_EQ(timeOf([&] {
              for (int i = 0; i < 1000; ++i) EXPECT_FALSE(submit());
            }),
            JobHostClient::kLookTime);
  EXPECT_EQ(kept_.size(), 4u);  // And the sign that is waited for, and the look.
}

TEST_F(EmbeddedJobsTest, AHostThatIsStuckIsLookedAtOnceASecond) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.advanceBy(1s - 1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
  loop_.advanceBy(1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), JobHostClient::kLookTime);
  loop_.advanceBy(1s - 1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
  loop_.advanceBy(1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), JobHostClient::kLookTime);
}

TEST_F(EmbeddedJobsTest, AHostThatGoesOnIsAskedAgainWithinTheTurn) {
  bool isStuck = true;
  startHost([&](PeerMessage message) {
    if (!isStuck) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_FALSE(submit());
  isStuck = false;
  loop_.sleepFor(1s);  // Nothing is served meanwhile.
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(remove(false)); }), 0s);
}

TEST_F(EmbeddedJobsTest, ASilentHostThatHasEndedIsReplacedWithinTheTurn) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  host_->die();
  startHost(answering(Value()));
  loop_.sleepFor(1s);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

TEST_F(EmbeddedJobsTest, ARemovalIsSentToAHostThatLivesAlthoughItDidNotTellOfTheJob) {
  startHost([this](PeerMessage message) {
    if (message.selector != kCopyJobMessage) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_TRUE(remove());
  EXPECT_THAT(host_->asked, ElementsAre("copyJob:", kMayChangeJobsMessage, "removeJob:wait:"));
}

TEST_F(EmbeddedJobsTest, AHostThatGoesOnIsAskedAgainAtOnce) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.runReady();
  ASSERT_EQ(kept_.size(), 3u);
  for (const PeerMessage& message : std::exchange(kept_, {}))
    EXPECT_TRUE(message.reply->answer(Value()));
  EXPECT_FALSE(submit());  // The loop has not heard of it.
  loop_.runReady();
  loop_.scheduleOutsideEvent(1s, [this] { EXPECT_TRUE(kept_.at(0).reply->answer(Value())); });
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 1s);
}

TEST_F(EmbeddedJobsTest, TheNextHostIsAskedAtOnceAfterOneThatWasStuck) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  host_->die();
  startHost(answering(Value()));
  loop_.runReady();
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

TEST_F(EmbeddedJobsTest, AHostThatOnlyTakesLongOverOneQuestionIsAskedTheOthers) {
  startHost([this](PeerMessage message) {
    if (message.selector != kSubmitJobMessage) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 30s);
  EXPECT_TRUE(remove(false));
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 30s);
}

TEST_F(EmbeddedJobsTest, AHostThatAcceptsNobodyIsLookedAtOnceASecond) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 5s);
  EXPECT_EQ(timeOf([&] {
              expectError(submit(), LaunchdError::kInternal, "is there, but does not answer");
            }),
            0s);
  loop_.advanceBy(JobHostClient::kSilentHostPause - 1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
  loop_.advanceBy(1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), JobHostClient::kLookTime);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
}

TEST_F(EmbeddedJobsTest, AHostThatAcceptsAgainWithinThePauseIsAskedAtOnce) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 5s);
  host_->goOn();
  loop_.sleepFor(JobHostClient::kSilentHostPause);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

class MissedHostTest : public EmbeddedJobsTest {
 protected:
  MissedHostTest() {
    client_.setReturnHandler([this] { ++returns_; });
  }
  // The host goes on.
  void answerAll() {
    for (const PeerMessage& message : std::exchange(kept_, {}))
      EXPECT_TRUE(message.reply->answer(Value()));
  }

  int returns_ = 0;
};

TEST_F(MissedHostTest, TheReturnOfASilentHostIsToldOnceForAllThatItFailed) {
  startHost(keeping());
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(submit());
  loop_.advanceBy(1h);
  EXPECT_EQ(returns_, 0);
  EXPECT_LE(kept_.size(), 4u);  // However long it is missed.
  answerAll();
  EXPECT_EQ(returns_, 0);  // Not before the loop turns.
  loop_.runReady();
  EXPECT_EQ(returns_, 1);
  loop_.advanceBy(1h);
  EXPECT_EQ(returns_, 1);
  // And again the next time.
  EXPECT_FALSE(submit());
  loop_.advanceBy(1s);
  answerAll();
  loop_.runReady();
  EXPECT_EQ(returns_, 2);
}

TEST_F(MissedHostTest, TheReturnOfAHostThatAcceptedNobodyIsTold) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_FALSE(submit());
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
  host_->goOn();
  loop_.advanceBy(2s);
  EXPECT_EQ(returns_, 1);
}

TEST_F(MissedHostTest, AHostThatTakesThePlaceOfOneThatWasMissedHasReturned) {
  EXPECT_FALSE(submit());  // There is none.
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
  startHost(keeping());
  loop_.advanceBy(2s);
  EXPECT_EQ(returns_, 0);  // It is there, but has not answered.
  host_->die();
  startHost(answering(Value()));
  loop_.advanceBy(2s);
  EXPECT_EQ(returns_, 1);
}

TEST_F(MissedHostTest, AHostThatIsSilentAndEndsInACallIsStillMissed) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.advanceBy(2s);
  host_->die();
  startHost(answering(Value()));
  EXPECT_TRUE(submit());  // It finds the old host dead, and asks the new one.
  EXPECT_EQ(returns_, 0);
  loop_.advanceBy(2s);
  EXPECT_EQ(returns_, 1);
}

TEST_F(MissedHostTest, AHostThatOnlyTakesLongIsNotMissed) {
  startHost([this](PeerMessage message) {
    if (message.selector != kSubmitJobMessage) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_FALSE(submit());
  answerAll();
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
}

TEST_F(MissedHostTest, WhoNoLongerListensIsNotTold) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.advanceBy(2s);
  client_.setReturnHandler({});
  answerAll();
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
  EXPECT_FALSE(submit());  // Nor is anybody looked for, or missed.
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
}

TEST_F(EmbeddedJobsTest, ARequestThatDoesNotWaitEndsTheSilenceOfAHostThatAcceptsAgain) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_FALSE(submit());
  host_->goOn();
  client_.callAsync(kMayChangeJobsMessage, {}, 1s, [](const auto& answer) { EXPECT_TRUE(answer); });
  loop_.runReady();
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

struct RemovalTime {
  Value exitTimeOut;
  Duration time;
};

TEST_F(EmbeddedJobsTest, ARemovalMayTakeAsLongAsTheJobIsGivenToEnd) {
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

TEST_F(EmbeddedJobsTest, WhatCannotTravelIsRefused) {
  startHost(answering(Value()));
  expectError(jobs_.SMJobSubmit(kSMDomainSystemLaunchd, Dictionary{{"Label", "\xff"}}, nullptr),
              LaunchdError::kInvalidJob, "could not be asked");
  EXPECT_THAT(host_->asked, ElementsAre());
}

class AsynchronousRemovalTest : public EmbeddedJobsTest {
 protected:
  using Outcome = std::optional<std::expected<void, NSError>>;

  // Tells of the job, and keeps the removals.
  ScriptedHost::Answer keepingRemovals() {
    return [this](PeerMessage message) {
      if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
      kept_.push_back(std::move(message));
    };
  }
  // Tells of the job, and dies of the removal.
  ScriptedHost::Answer dyingOfRemovals() {
    return [this](PeerMessage message) {
      if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
      host_->die();
    };
  }

  std::shared_ptr<Outcome> startRemoval() {
    auto removed = std::make_shared<Outcome>();
    jobs_.removeAsync(kLabel, [removed](auto outcome) {
      EXPECT_FALSE(*removed);
      *removed = std::move(outcome);
    });
    EXPECT_FALSE(*removed);
    return removed;
  }
};

TEST_F(AsynchronousRemovalTest, ARemovalNeedNotBlock) {
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

TEST_F(AsynchronousRemovalTest, TheHostsErrorIsHandedOn) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.runReady();
  ASSERT_EQ(kept_.size(), 1u);
  failing(LaunchdError::kNoSuchJob, "no such job")(std::move(kept_[0]));
  loop_.runReady();
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kNoSuchJob, "no such job");
}

TEST_F(AsynchronousRemovalTest, TheNextHostIsAskedAgain) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.advanceBy(10s);  // Longer than a host is waited for.
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

TEST_F(AsynchronousRemovalTest, AHostThatDoesNotComeBackIsGivenUpAfterFiveSeconds) {
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

TEST_F(AsynchronousRemovalTest, AllThatTheHostOwedIsAskedAgain) {
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
  EXPECT_TRUE(submit());  // Before the loop has told of the death.
  EXPECT_FALSE(*removed);
  loop_.advanceBy(50ms);
  ASSERT_TRUE(*removed);
  EXPECT_TRUE(**removed);
  EXPECT_EQ(host_->connections, 1);
}

TEST_F(AsynchronousRemovalTest, AHostThatIsStuckIsGivenUpAndNotAskedAgain) {
  startHost(keepingRemovals());
  const auto removed = startRemoval();
  loop_.advanceBy(50s);
  ASSERT_TRUE(*removed);
  expectError(**removed, LaunchdError::kInternal, "did not answer within 50 s");
  EXPECT_EQ(kept_.size(), 1u);
}

TEST_F(AsynchronousRemovalTest, WhoDoesNotWaitForAHostWaitsForOneThatHasEnded) {
  JobHostClient impatient(transport_, loop_, kSocket, Duration::zero());
  EmbeddedJobs jobs(impatient);
  startHost(keepingRemovals());
  std::optional<std::expected<void, NSError>> removed;
  jobs.removeAsync(kLabel, [&](auto outcome) { removed = std::move(outcome); });
  loop_.runReady();
  host_->die();
  loop_.advanceBy(2s);
  EXPECT_FALSE(removed);
  startHost(answering(Value()));
  loop_.advanceBy(50ms);
  ASSERT_TRUE(removed);
  EXPECT_TRUE(*removed);
}

TEST_F(EmbeddedJobsTest, AHostThatEndsLateInARequestIsReplacedByTheNext) {
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

TEST_F(EmbeddedJobsTest, AuthorizationFromAStuckHostIsNoneAndSaysSo) {
  startHost(keeping());
  const auto created = authorization_.AuthorizationCreate(kAuthorizationFlagDefaults);
  ASSERT_FALSE(created);
  EXPECT_EQ(created.error(), kErrnoStatusBase + ETIMEDOUT);
}

}  // namespace
}  // namespace platform
