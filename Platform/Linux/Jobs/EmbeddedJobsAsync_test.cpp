#include <algorithm>
#include <cstddef>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Linux/Jobs/EmbeddedJobs_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Submissions and copies without blocking.

class AsynchronousCallsTest : public EmbeddedJobsTest {
 protected:
  using Submission = std::optional<std::expected<void, NSError>>;

  std::shared_ptr<Submission> startSubmission() {
    auto submitted = std::make_shared<Submission>();
    jobs_.submitJob(kSMDomainSystemLaunchd, job_, nullptr,
                    [submitted](auto outcome) { *submitted = std::move(outcome); });
    EXPECT_FALSE(*submitted);
    return submitted;
  }
  void startCopies(int number) {
    for (int i = 0; i < number; ++i) {
      jobs_.copyJob(kSMDomainSystemLaunchd, kLabel,
                    [this](Value copy) { copies_.push_back(std::move(copy)); });
    }
  }
  void answerKept() {
    for (const PeerMessage& message : std::exchange(kept_, {})) {
      EXPECT_TRUE(message.reply->answer(job_));
    }
    loop_.runReady();
  }

  std::vector<Value> copies_;
  std::vector<std::move_only_function<void(bool)>> probes_;
  int returns_ = 0;
};

TEST_F(AsynchronousCallsTest, AHungHostFailsOnlyTheFirstRequestLate) {
  startHost(keeping());
  const auto first = startSubmission();
  loop_.advanceBy(30s);
  ASSERT_TRUE(*first);
  expectError(**first, LaunchdError::kInternal, "did not answer within 30 s");
  loop_.advanceBy(JobHostClient::kPingTimeOut);
  const auto second = startSubmission();
  startCopies(1);
  loop_.runReady();
  ASSERT_TRUE(*second);
  expectError(**second, LaunchdError::kInternal, "does not answer");
  EXPECT_THAT(copies_, ElementsAre(Value(Dictionary())));
  // The submission that failed at once is not among them.
  EXPECT_THAT(host_->asked,
              ElementsAre("submitJob:", kMayChangeJobsMessage, kMayChangeJobsMessage));
  answerKept();
  startCopies(1);
  loop_.runReady();
  EXPECT_EQ(kept_.size(), 1u);
}

// A request that was sent meanwhile would wait as long as the first one.
TEST_F(AsynchronousCallsTest, ARequestAfterATimeOutWaitsForThePing) {
  startHost(keeping());
  const auto first = startSubmission();
  loop_.advanceBy(30s);
  ASSERT_TRUE(*first);
  const auto second = startSubmission();
  loop_.advanceBy(JobHostClient::kPingTimeOut - 1ns);
  EXPECT_FALSE(*second);
  loop_.advanceBy(1ns);
  ASSERT_TRUE(*second);
  expectError(**second, LaunchdError::kInternal, "does not answer");
  EXPECT_EQ(std::ranges::count(host_->asked, "submitJob:"), 1);
}

TEST_F(AsynchronousCallsTest, ASlowHostStillGetsRequests) {
  startHost([this](PeerMessage message) {
    if (message.selector != kSubmitJobMessage) return answering(job_)(std::move(message));
    kept_.push_back(std::move(message));
  });
  const auto submitted = startSubmission();
  loop_.advanceBy(32s);
  EXPECT_TRUE(*submitted);
  startCopies(1);
  loop_.runReady();
  EXPECT_THAT(copies_, ElementsAre(job_));
}

TEST_F(AsynchronousCallsTest, TheHostHasABoundedNumberOfRequests) {
  startHost(keeping());
  startCopies(200);
  loop_.runReady();
  EXPECT_EQ(kept_.size(), JobHostClient::kMaximumUsual);
  for (int i = 0; i < 4; ++i) answerKept();
  EXPECT_EQ(copies_.size(), 200u);
  EXPECT_THAT(copies_, Each(job_));
}

TEST_F(AsynchronousCallsTest, AHungHostFailsTheRequestsThatWaitForTheirTurn) {
  startHost(keeping());
  startCopies(1000);
  loop_.advanceBy(30s + JobHostClient::kPingTimeOut + 30s);
  EXPECT_EQ(copies_.size(), 1000u);
  EXPECT_THAT(copies_, Each(Value(Dictionary())));
}

TEST_F(AsynchronousCallsTest, RemovalsThatWaitLeaveRoom) {
  startHost([this](PeerMessage message) {
    if (message.selector == kCopyJobMessage) return answering(job_)(std::move(message));
    kept_.push_back(std::move(message));
  });
  int removed = 0;
  for (int i = 0; i < 100; ++i) {
    jobs_.removeJob(kSMDomainSystemLaunchd, kLabel, nullptr, [&](const auto& outcome) {
      EXPECT_TRUE(outcome);
      ++removed;
    });
  }
  loop_.runReady();
  EXPECT_EQ(kept_.size(), JobHostClient::kMaximumLong);
  startCopies(1);
  loop_.runReady();
  EXPECT_THAT(copies_, ElementsAre(job_));
  // A removal has 50 s from when it is sent, also if it has waited for its turn for longer.
  for (int i = 0; i < 3; ++i) {
    loop_.advanceBy(49s);
    answerKept();
  }
  EXPECT_EQ(removed, 100);
}

TEST_F(AsynchronousCallsTest, TheNextHostGetsTheRequestsInTheirOrder) {
  startHost(keeping());
  const auto submitted = startSubmission();
  startCopies(1);
  loop_.runReady();
  host_->die();
  startCopies(1);
  startHost(answering(Value()));
  loop_.advanceBy(100ms);
  ASSERT_TRUE(*submitted);
  EXPECT_TRUE(**submitted);
  EXPECT_THAT(host_->asked, ElementsAre("submitJob:", "copyJob:", "copyJob:"));
}

TEST_F(AsynchronousCallsTest, AHostThatAcceptsNoConnectionBlocksOnce) {
  std::vector<std::move_only_function<void(bool)>> probes;
  client_.setProbe([&](auto answer) { probes.push_back(std::move(answer)); });
  startHost(answering(job_));
  host_->hang();
  startCopies(1);
  EXPECT_EQ(timeOf([&] { loop_.runReady(); }), JobHostClient::kProbeTimeOut);
  for (const std::size_t probed : {1u, 2u, 3u}) {
    EXPECT_EQ(timeOf([&] { loop_.advanceBy(1s); }), 1s);
    ASSERT_EQ(probes.size(), probed);
    startCopies(1);
    EXPECT_EQ(timeOf([&] { loop_.runReady(); }), 0s);
    if (probed < 3) probes.back()(false);
  }
  EXPECT_EQ(host_->connections, 0);
  host_->goOn();
  probes.back()(true);
  loop_.runReady();
  EXPECT_THAT(copies_, AllOf(SizeIs(4), Each(job_)));
  EXPECT_EQ(host_->connections, 1);
}

TEST_F(AsynchronousCallsTest, TheReturnOfAHostThatAcceptedNothingIsProbed) {
  std::vector<std::move_only_function<void(bool)>> probes;
  client_.setProbe([&](auto answer) { probes.push_back(std::move(answer)); });
  int returns = 0;
  client_.setReturnHandler([&] { ++returns; });
  startHost(answering(Value(true)));
  host_->hang();
  startCopies(1);
  for (int second = 0; second < 10; ++second) {
    loop_.advanceBy(1s);
    for (auto& answer : std::exchange(probes, {})) answer(false);
  }
  EXPECT_THAT(copies_, ElementsAre(Value(Dictionary())));
  host_->goOn();
  loop_.advanceBy(1s);
  for (auto& answer : std::exchange(probes, {})) answer(true);
  loop_.runReady();
  EXPECT_EQ(returns, 1);
}

TEST_F(AsynchronousCallsTest, RequestsFailIfNoProbeAnswers) {
  client_.setProbe([this](auto answer) { probes_.push_back(std::move(answer)); });
  startHost(answering(job_));
  host_->hang();
  startCopies(1);
  loop_.advanceBy(JobHostClient::kRestartTimeOut);
  EXPECT_THAT(copies_, IsEmpty());
  loop_.advanceBy(JobHostClient::kProbeInterval + 2 * JobHostClient::kProbeTimeOut);
  EXPECT_THAT(copies_, ElementsAre(Value(Dictionary())));
  EXPECT_EQ(probes_.size(), 1u);  // The thread that does not answer gets no further ones.
}

TEST_F(AsynchronousCallsTest, AHostIsReachedAlsoIfNoProbeAnswers) {
  client_.setProbe([this](auto answer) { probes_.push_back(std::move(answer)); });
  startHost(answering(job_));
  host_->hang();
  startCopies(1);
  loop_.advanceBy(2s);
  host_->goOn();
  loop_.advanceBy(JobHostClient::kProbeAnswerTimeOut);
  EXPECT_THAT(copies_, ElementsAre(job_));
  ASSERT_EQ(probes_.size(), 1u);
  probes_.front()(false);  // too late
  startCopies(1);
  loop_.runReady();
  EXPECT_THAT(copies_, ElementsAre(job_, job_));
  // After its answer, however late, the thread is used again.
  host_->die();
  startHost(answering(job_));
  host_->hang();
  startCopies(1);
  loop_.advanceBy(2s);
  EXPECT_EQ(probes_.size(), 2u);
}

TEST_F(AsynchronousCallsTest, AHostReturnsAlsoIfNoProbeAnswers) {
  client_.setProbe([this](auto answer) { probes_.push_back(std::move(answer)); });
  client_.setReturnHandler([this] { ++returns_; });
  startHost(answering(Value(true)));
  host_->hang();
  startCopies(1);
  loop_.advanceBy(JobHostClient::kRestartTimeOut + 2s);
  for (auto& answer : std::exchange(probes_, {})) answer(false);
  loop_.advanceBy(2s);
  EXPECT_EQ(probes_.size(), 1u);  // for the return alone
  host_->goOn();
  loop_.advanceBy(JobHostClient::kProbeAnswerTimeOut);
  EXPECT_EQ(returns_, 1);
}

TEST_F(AsynchronousCallsTest, AProbeMayAnswerAfterTheClient) {
  std::move_only_function<void(bool)> probe;
  {
    JobHostClient client(transport_, loop_, kSocket);
    client.setProbe([&](auto answer) { probe = std::move(answer); });
    startHost(answering(job_));
    host_->hang();
    client.callAsync(kMayChangeJobsMessage, {}, 30s, [](const auto&) { ADD_FAILURE(); });
    loop_.advanceBy(2s);
  }
  ASSERT_TRUE(probe);
  probe(true);
  loop_.runReady();
}

TEST_F(AsynchronousCallsTest, AnAbsentHostFailsTheNextRequestsAtOnce) {
  const auto first = startSubmission();
  loop_.advanceBy(5s - 1ns);
  EXPECT_FALSE(*first);
  loop_.advanceBy(51ms);
  ASSERT_TRUE(*first);
  expectError(**first, LaunchdError::kUnavailable, "can't be reached");
  startCopies(1);
  loop_.runReady();
  EXPECT_THAT(copies_, ElementsAre(Value(Dictionary())));
}

TEST_F(AsynchronousCallsTest, AFailedRequestAwaitsTheReturnOfTheHost) {
  int returns = 0;
  client_.setReturnHandler([&] { ++returns; });
  startSubmission();
  loop_.advanceBy(1min);
  EXPECT_EQ(returns, 0);
  startHost(answering(Value(true)));
  loop_.advanceBy(2s);
  EXPECT_EQ(returns, 1);
}

}  // namespace
}  // namespace platform
