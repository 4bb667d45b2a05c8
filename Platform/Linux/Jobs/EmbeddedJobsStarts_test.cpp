#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Linux/Jobs/EmbeddedJobs_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

// The starts of jobs, as a client observes them.

class ObservedStartsTest : public EmbeddedJobsTest {
 protected:
  void observe() {
    observation_ = jobs_.observeStarts(
        [this](std::string_view label, Jobs::Start) { started_.emplace_back(label); });
  }
  // Answers the request that the host has kept.
  void report(const Dictionary& started) {
    ASSERT_EQ(kept_.size(), 1u);
    const PeerMessage request = std::move(kept_[0]);
    kept_.clear();
    EXPECT_EQ(request.selector, kAwaitJobStartsMessage);
    EXPECT_TRUE(request.reply->answer(Value(started)));
  }

  std::unique_ptr<RunLoopHandle> observation_;
  std::vector<std::string> started_;
};

TEST_F(ObservedStartsTest, EachAnswerIsReportedAndTheNextRequestMade) {
  startHost(keeping());
  observe();
  loop_.runReady();
  report({{"a", 11}, {"b", 12}});
  EXPECT_THAT(started_, IsEmpty());
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("a", "b"));
  report({{"a", 13}});
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("a", "b", "a"));
}

TEST_F(ObservedStartsTest, TheRequestHasNoTimeOut) {
  startHost(keeping());
  observe();
  loop_.advanceBy(24h);
  EXPECT_EQ(kept_.size(), 1u);
  report({{"a", 11}});
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("a"));
}

TEST_F(ObservedStartsTest, OneRequestServesAllObservers) {
  startHost(keeping());
  observe();
  std::vector<std::string> others;
  const auto other =
      jobs_.observeStarts([&](std::string_view label, Jobs::Start) { others.emplace_back(label); });
  loop_.runReady();
  report({{"a", 11}});
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("a"));
  EXPECT_THAT(others, ElementsAre("a"));
}

TEST_F(ObservedStartsTest, WithoutObserversNothingIsAsked) {
  startHost(keeping());
  observe();
  loop_.runReady();
  observation_.reset();
  report({{"a", 11}});
  loop_.advanceBy(1min);
  EXPECT_THAT(kept_, IsEmpty());
  observe();
  loop_.runReady();
  report({{"b", 12}});
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("b"));
}

TEST_F(ObservedStartsTest, TheNextHostIsAskedAtOnce) {
  startHost(keeping());
  observe();
  loop_.runReady();
  host_->die();
  startHost(keeping());
  loop_.advanceBy(50ms);
  report({{"a", 11}});
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("a"));
}

TEST_F(ObservedStartsTest, AnAbsentHostIsTriedUntilItIsThere) {
  EXPECT_EQ(timeOf([&] { observe(); }), 0s);
  loop_.advanceBy(1h);
  startHost(keeping());
  loop_.advanceBy(1s);
  report({{"a", 11}});
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("a"));
}

TEST_F(ObservedStartsTest, AHostThatDoesNotAcceptHoldsUpOneCallInASecond) {
  startHost(keeping());
  host_->hang();
  observe();
  EXPECT_EQ(timeOf([&] { loop_.runReady(); }), JobHostClient::kProbeTimeOut);
  EXPECT_EQ(timeOf([&] { loop_.runReady(); }), 0s);
  host_->goOn();
  loop_.advanceBy(2s);
  report({{"a", 11}});
  loop_.runReady();
  EXPECT_THAT(started_, ElementsAre("a"));
}

TEST_F(ObservedStartsTest, AHostThatRejectsTheRequestIsAskedOnceASecond) {
  int requests = 0;
  startHost([&](const PeerMessage& message) {
    ++requests;
    EXPECT_TRUE(message.reply->answer(
        std::unexpected(NSException{kNSInvalidArgumentException, "unrecognized selector", {}})));
  });
  observe();
  loop_.runReady();
  EXPECT_EQ(requests, 1);
  loop_.advanceBy(1s - 1ns);
  EXPECT_EQ(requests, 1);
  loop_.advanceBy(1ns);
  EXPECT_EQ(requests, 2);
}

TEST_F(ObservedStartsTest, CallsOfAnObserverAreAnswered) {
  startHost([this](PeerMessage message) {
    if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
    kept_.push_back(std::move(message));
  });
  Value copy;
  const auto observation = jobs_.observeStarts([&](std::string_view label, Jobs::Start) {
    copy = jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, label);
  });
  loop_.runReady();
  report({{kLabel, 11}});
  loop_.runReady();
  EXPECT_EQ(copy, job_);
}

}  // namespace
}  // namespace platform
