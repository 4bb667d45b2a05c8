#include <memory>
#include <utility>
#include <vector>

#include "Platform/Linux/Jobs/EmbeddedJobs_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

// A job host that hangs, does not accept or is absent, and its return.

TEST_F(EmbeddedJobsTest, ACallToAHungHostTimesOut) {
  startHost(keeping());
  EXPECT_EQ(
      timeOf([&] { expectError(submit(), LaunchdError::kInternal, "did not answer within 30 s"); }),
      30s + JobHostClient::kPingTimeOut);
}

TEST_F(EmbeddedJobsTest, TheWaitsForAHungHostCanBeLimited) {
  client_.limitWaits(250ms);
  startHost(keeping());
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 500ms);  // for the answer, and for the ping
}

TEST_F(EmbeddedJobsTest, AHungHostCostsOneWaitForAllCalls) {
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
  EXPECT_EQ(kept_.size(), 2u);  // the first call and the ping
  // The same holds however much later.
  loop_.advanceBy(1h);
  EXPECT_EQ(timeOf([&] {
              for (int i = 0; i < 1000; ++i) EXPECT_FALSE(submit());
            }),
            JobHostClient::kProbeTimeOut);
  EXPECT_EQ(kept_.size(), 4u);  // also the ping without a time-out, and the probe
}

TEST_F(EmbeddedJobsTest, AHungHostIsProbedOnceASecond) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.advanceBy(1s - 1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
  loop_.advanceBy(1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), JobHostClient::kProbeTimeOut);
  loop_.advanceBy(1s - 1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
  loop_.advanceBy(1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), JobHostClient::kProbeTimeOut);
}

TEST_F(EmbeddedJobsTest, AHostThatGoesOnIsCalledWithinTheSameTurn) {
  bool isStuck = true;
  startHost([&](PeerMessage message) {
    if (!isStuck) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_FALSE(submit());
  isStuck = false;
  loop_.sleepFor(1s);  // The loop delivers nothing meanwhile.
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(remove(false)); }), 0s);
}

TEST_F(EmbeddedJobsTest, AHungHostThatHasEndedIsReplacedWithinTheTurn) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  host_->die();
  startHost(answering(Value()));
  loop_.sleepFor(1s);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

TEST_F(EmbeddedJobsTest, ARemovalIsSentWithoutAnAnswerAboutTheJob) {
  startHost([this](PeerMessage message) {
    if (message.selector != kCopyJobMessage) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_TRUE(remove());
  EXPECT_THAT(host_->asked, ElementsAre("copyJob:", kMayChangeJobsMessage, "removeJob:wait:"));
}

TEST_F(EmbeddedJobsTest, AHostThatGoesOnIsCalledAtOnce) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.runReady();
  ASSERT_EQ(kept_.size(), 3u);
  for (const PeerMessage& message : std::exchange(kept_, {}))
    EXPECT_TRUE(message.reply->answer(Value()));
  EXPECT_FALSE(submit());  // The loop has not delivered the answer.
  loop_.runReady();
  loop_.scheduleOutsideEvent(1s, [this] { EXPECT_TRUE(kept_.at(0).reply->answer(Value())); });
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 1s);
}

TEST_F(EmbeddedJobsTest, TheNextHostAfterAHungOneIsCalledAtOnce) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  host_->die();
  startHost(answering(Value()));
  loop_.runReady();
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

TEST_F(EmbeddedJobsTest, AHostThatIsSlowWithOneCallStillGetsTheOthers) {
  startHost([this](PeerMessage message) {
    if (message.selector != kSubmitJobMessage) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 30s);
  EXPECT_TRUE(remove(false));
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 30s);
}

TEST_F(EmbeddedJobsTest, AHostThatDoesNotAcceptIsProbedOnceASecond) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 5s);
  EXPECT_EQ(timeOf([&] {
              expectError(submit(), LaunchdError::kInternal, "is there, but does not answer");
            }),
            0s);
  loop_.advanceBy(JobHostClient::kProbeInterval - 1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
  loop_.advanceBy(1ns);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), JobHostClient::kProbeTimeOut);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 0s);
}

TEST_F(EmbeddedJobsTest, AHostThatAcceptsAgainIsCalledWithinTheSameTurn) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(submit()); }), 5s);
  host_->goOn();
  loop_.sleepFor(JobHostClient::kProbeInterval);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

class HostReturnTest : public EmbeddedJobsTest {
 protected:
  HostReturnTest() {
    client_.setReturnHandler([this] { ++returns_; });
  }
  // Lets the host go on.
  void answerAll() {
    for (const PeerMessage& message : std::exchange(kept_, {}))
      EXPECT_TRUE(message.reply->answer(Value()));
  }

  int returns_ = 0;
};

TEST_F(HostReturnTest, TheReturnOfAHungHostIsReportedOnce) {
  startHost(keeping());
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(submit());
  loop_.advanceBy(1h);
  EXPECT_EQ(returns_, 0);
  EXPECT_LE(kept_.size(), 4u);  // however long it hangs
  answerAll();
  EXPECT_EQ(returns_, 0);  // not before the loop turns
  loop_.runReady();
  EXPECT_EQ(returns_, 1);
  loop_.advanceBy(1h);
  EXPECT_EQ(returns_, 1);
  // The next return is reported too.
  EXPECT_FALSE(submit());
  loop_.advanceBy(1s);
  answerAll();
  loop_.runReady();
  EXPECT_EQ(returns_, 2);
}

TEST_F(HostReturnTest, TheReturnOfAHostThatDidNotAcceptIsReported) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_FALSE(submit());
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
  host_->goOn();
  loop_.advanceBy(2s);
  EXPECT_EQ(returns_, 1);
}

TEST_F(HostReturnTest, TheNextHostAfterAMissingOneCountsAsReturned) {
  EXPECT_FALSE(submit());  // There is no host.
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

TEST_F(HostReturnTest, TheReturnIsReportedIfAHungHostEndsInACall) {
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

TEST_F(HostReturnTest, ASlowHostHasNoReturn) {
  startHost([this](PeerMessage message) {
    if (message.selector != kSubmitJobMessage) return answering(Value())(std::move(message));
    kept_.push_back(std::move(message));
  });
  EXPECT_FALSE(submit());
  answerAll();
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
}

TEST_F(HostReturnTest, ARemovedReturnHandlerIsNotCalled) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.advanceBy(2s);
  client_.setReturnHandler({});
  answerAll();
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
  EXPECT_FALSE(submit());  // Now nothing probes for a return.
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 0);
}

TEST_F(HostReturnTest, AReturnIsReportedOnceTheHostIsBackForGood) {
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.advanceBy(2s);
  answerAll();
  loop_.post([this] { EXPECT_FALSE(submit()); });  // between the answer and the handler
  loop_.runReady();
  EXPECT_EQ(returns_, 0);
  loop_.advanceBy(2s);
  EXPECT_EQ(returns_, 0);
  answerAll();
  loop_.advanceBy(1h);
  EXPECT_EQ(returns_, 1);
}

TEST_F(HostReturnTest, TheReturnHandlerMayRemoveItself) {
  client_.setReturnHandler([this] {
    client_.setReturnHandler({});
    ++returns_;
  });
  startHost(keeping());
  EXPECT_FALSE(submit());
  loop_.advanceBy(2s);
  answerAll();
  loop_.runReady();
  EXPECT_EQ(returns_, 1);
  EXPECT_FALSE(submit());
  loop_.advanceBy(1min);
  answerAll();
  loop_.advanceBy(1min);
  EXPECT_EQ(returns_, 1);
}

TEST_F(EmbeddedJobsTest, AnAsynchronousCallFindsThatAHungHostAcceptsAgain) {
  startHost(answering(Value()));
  host_->hang();
  EXPECT_FALSE(submit());
  host_->goOn();
  client_.callAsync(kMayChangeJobsMessage, {}, 1s, [](const auto& answer) { EXPECT_TRUE(answer); });
  loop_.runReady();
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(submit()); }), 0s);
}

}  // namespace
}  // namespace platform
