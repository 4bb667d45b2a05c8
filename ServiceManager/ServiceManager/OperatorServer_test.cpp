// The operator's server beside a main thread that does what the test says.

#include <deque>
#include <memory>
#include <optional>
#include <utility>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerOperatorServer.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class OperatorServerTest : public SupervisionFixture, public KLXGlobalSettingsClientDelegate {
 protected:
  // The main thread takes a picture with this mode when it serves the oldest request.
  void serveMainThread(std::int64_t mode) {
    ASSERT_FALSE(requests_.empty());
    publish(mode);
    RunLoop::Callback published = std::move(requests_.front());
    requests_.pop_front();
    published();
    loop_.runReady();
  }
  void publish(std::int64_t mode) {
    pictures_->publish(std::make_shared<OperatorPicture>(
        OperatorPicture{.taken = loop_.now(),
                        .catalogue = std::make_shared<ServiceCatalogue>(catalogue_),
                        .operatingMode = mode}));
  }

  // The result of a message is there once the server has answered it.
  std::shared_ptr<std::optional<MessageResult>> send(const char* selector, Array arguments = {}) {
    auto result = std::make_shared<std::optional<MessageResult>>();
    server_->takeMessage(selector, arguments,
                         MessageReply([result](MessageResult answer) { *result = answer; }));
    return result;
  }
  static Value modeIn(const std::optional<MessageResult>& overview) {
    return overview && *overview ? (**overview)[kFactOperatingMode] : Value();
  }

  SettingsClientFactories factories_;
  SettingsSources sources_{factories_, *this};
  OperatorReport report_{{.runLoop = loop_,
                          .system = system_,
                          .extensions = extensionsPlatform_,
                          .jobs = jobs_,
                          .sources = sources_}};
  std::shared_ptr<OperatorPictures> pictures_ = std::make_shared<OperatorPictures>();
  std::deque<RunLoop::Callback> requests_;  // that the main thread has not served
  std::deque<RunLoop::Callback> settled_;
  std::shared_ptr<MainThreadWork> mainWork_ = std::make_shared<MainThreadWork>(loop_);
  std::shared_ptr<OperatorEvents> events_ = std::make_shared<OperatorEvents>();
  std::optional<ORBServiceManagerOperatorServer> server_{
      std::in_place,
      ORBServiceManagerOperatorServer::Environment{
          .runLoop = loop_,
          .pictures = pictures_,
          .report = report_,
          .main = {
              .publish = [this](RunLoop::Callback done) { requests_.push_back(std::move(done)); },
              .whenSettled =
                  [this](Array, RunLoop::Callback settled) {
                    settled_.push_back(std::move(settled));
                  }},
          .mainThreadWork = mainWork_,
          .events = events_}};
};

TEST_F(OperatorServerTest, AnAnswerIsAboutAPictureThatWasTakenAfterTheQuestion) {
  publish(2);
  const auto answer = send("overview");
  EXPECT_FALSE(*answer);
  serveMainThread(1);
  EXPECT_EQ(modeIn(*answer), Value(1));
}

TEST_F(OperatorServerTest, TheFirstPageTakesAPictureAndTheOthersShareIt) {
  publish(2);
  const auto first = send("overviewFrom:", {0});
  EXPECT_FALSE(*first);
  serveMainThread(1);
  EXPECT_EQ(modeIn(*first), Value(1));
  EXPECT_EQ(modeIn(*send("overviewFrom:", {1})), Value(1));
  for (const Value& wrong : {Value(-1), Value("1"), Value()}) {
    const auto answer = send("healthRecordFrom:", {wrong});
    ASSERT_TRUE(*answer);
    EXPECT_FALSE(**answer);
  }
}

TEST_F(OperatorServerTest, WhileTheMainThreadHangsTheLastPictureIsTheAnswer) {
  publish(2);
  const auto overview = send("overview");
  const auto facts = send("factsOfService:", {kAgent});
  loop_.advanceBy(99ms);
  EXPECT_FALSE(*overview || *facts);
  loop_.advanceBy(1ms);
  EXPECT_EQ(modeIn(*overview), Value(2));
  EXPECT_EQ(modeIn(*facts), Value(2));
  EXPECT_EQ(requests_.size(), 1u);
  serveMainThread(0);
  EXPECT_EQ(modeIn(*overview), Value(2));
}

TEST_F(OperatorServerTest, AnAnswerWithoutTheMainThreadSaysWhatThatIsDoing) {
  publish(2);
  const std::string label = kAgent;
  const MainThreadWork::Scope scope(*mainWork_, kWorkChecksProgram, label);
  loop_.advanceBy(2s);
  const auto overview = send("overview");
  const auto extensions = send("extensions");
  loop_.advanceBy(100ms);
  EXPECT_EQ((***overview)[kFactMainThread],
            Value(Dictionary{
                {kFactWork, "checksProgram"}, {kFactWorkLabel, kAgent}, {kFactBusyFor, 2.1}}));
  EXPECT_TRUE((***extensions)[kFactMainThread].isNil());
}

TEST_F(OperatorServerTest, AHungMainThreadIsReportedWithoutItsWork) {
  publish(2);
  send("overview");
  loop_.advanceBy(5s);
  const auto facts = send("factsOfService:", {kAgent});
  loop_.advanceBy(100ms);
  EXPECT_EQ((***facts)[kFactMainThread], Value(Dictionary{{kFactBusyFor, 5.1}}));
  serveMainThread(0);
  const auto overview = send("overview");
  serveMainThread(0);
  EXPECT_TRUE((***overview)[kFactMainThread].isNil());
}

TEST_F(OperatorServerTest, QuestionsThatComeTogetherShareAPicture) {
  const auto first = send("overview");
  const auto second = send("overview");
  const auto third = send("extensions");
  EXPECT_EQ(requests_.size(), 1u);
  serveMainThread(1);
  EXPECT_EQ(modeIn(*first), Value(1));
  // The picture may be older than these questions.
  EXPECT_FALSE(*second || *third);
  EXPECT_EQ(requests_.size(), 1u);
  serveMainThread(2);
  EXPECT_EQ(modeIn(*second), Value(2));
  EXPECT_TRUE(*third);
  EXPECT_TRUE(requests_.empty());
}

TEST_F(OperatorServerTest, AHungMainThreadGetsOneRequestForAllQuestions) {
  for (int i = 0; i < 100; ++i) send("overview");
  loop_.advanceBy(100ms);
  for (int i = 0; i < 100; ++i) send("overview");
  loop_.advanceBy(100ms);
  EXPECT_EQ(requests_.size(), 1u);
  const auto answer = send("overview");
  serveMainThread(1);
  EXPECT_FALSE(*answer);
  serveMainThread(2);
  EXPECT_EQ(modeIn(*answer), Value(2));
}

TEST_F(OperatorServerTest, JobsAreReportedWithoutTheMainThread) {
  publish(0);
  EXPECT_EQ(**send("jobsOfServices:", {Array{kAgent}}),
            Value(Dictionary{{kAgent, Dictionary{{kFactJobIsUnknown, true}}}}));
  EXPECT_EQ(**send("treesOfServices:", {Array{kAgent}}), Value(Dictionary()));
  EXPECT_TRUE(requests_.empty());
}

TEST_F(OperatorServerTest, AWaitForServicesEndsWhenTheMainThreadSaysSo) {
  const auto answer = send("awaitServices:", {Array{kAgent}});
  loop_.advanceBy(1h);
  EXPECT_FALSE(*answer);
  settled_.front()();
  loop_.runReady();
  loop_.advanceBy(1h);
  EXPECT_FALSE(*answer);  // It waits for a picture of the settled services.
  serveMainThread(0);
  EXPECT_EQ(**answer, Value(true));
}

TEST_F(OperatorServerTest, WaitsThatEndTogetherShareAPicture) {
  const auto first = send("awaitServices:", {Array{kAgent}});
  const auto second = send("awaitServices:", {Array{kAgent}});
  const auto third = send("awaitServices:", {Array{kAgent}});
  for (RunLoop::Callback& settled : settled_) settled();
  loop_.runReady();
  serveMainThread(0);
  EXPECT_EQ(**first, Value(true));
  serveMainThread(0);
  EXPECT_EQ(**second, Value(true));
  EXPECT_EQ(**third, Value(true));
  EXPECT_TRUE(requests_.empty());
}

TEST_F(OperatorServerTest, CallsThatTheMainThreadDropsEndWithTheServer) {
  const auto overview = send("overview");
  const auto settled = send("awaitServices:", {Array{kAgent}});
  RunLoop::Callback late = std::move(requests_.front());
  requests_.clear();
  settled_.clear();
  server_.reset();
  EXPECT_TRUE(*overview && !**overview);
  EXPECT_TRUE(*settled && !**settled);
  late();
  loop_.runReady();
}

TEST_F(OperatorServerTest, AClientGetsTheNextEventWithoutTheMainThread) {
  const auto number = send("eventsAfter:", {-1});
  EXPECT_EQ((***number)[kFactLastEvent], Value(0));
  const auto answer = send("eventsAfter:", {0});
  const auto other = send("eventsAfter:", {0});
  EXPECT_FALSE(*answer || *other);
  events_->add({.kind = OperatorEvent::Kind::kMode, .number = 2});
  loop_.runReady();
  EXPECT_EQ((***answer)[kFactLastEvent], Value(1));
  EXPECT_EQ((***other)[kFactLastEvent], Value(1));
  EXPECT_EQ((***send("eventsAfter:", {0}))[kFactLastEvent], Value(1));
  const auto next = send("eventsAfter:", {1});
  EXPECT_FALSE(*next);
  events_->add({.kind = OperatorEvent::Kind::kMode, .number = 0});
  loop_.runReady();
  EXPECT_EQ((***next)[kFactLastEvent], Value(2));
  EXPECT_TRUE(requests_.empty());
}

TEST_F(OperatorServerTest, WithoutAnEventTheAnswerIsEmptyInTime) {
  const auto answer = send("eventsAfter:", {0});
  loop_.advanceBy(ORBServiceManagerOperatorServer::kEventsTime - 1ms);
  EXPECT_FALSE(*answer);
  loop_.advanceBy(1ms);
  EXPECT_EQ((***answer)[kFactEvents], Value(Array()));
}

TEST_F(OperatorServerTest, TheRequestsForEventsAreLimited) {
  const auto first = send("eventsAfter:", {0});
  for (std::size_t i = 1; i < ORBServiceManagerOperatorServer::kMostWaitingForEvents; ++i)
    send("eventsAfter:", {0});
  loop_.advanceBy(ORBServiceManagerOperatorServer::kLeastEventsWait - 1ms);
  const auto refused = send("eventsAfter:", {0});
  EXPECT_TRUE(*refused && !**refused);
  EXPECT_FALSE(*first);
  loop_.advanceBy(1ms);
  const auto last = send("eventsAfter:", {0});
  EXPECT_TRUE(*first && **first);
  EXPECT_FALSE(*last);
  EXPECT_FALSE(**send("eventsAfter:", {"one"}));
  server_.reset();
  EXPECT_TRUE(*last && !**last);
  events_->add({.kind = OperatorEvent::Kind::kMode});
  loop_.runReady();
}

TEST_F(OperatorServerTest, AnUnknownMessageRaises) {
  const auto answer = send("stopServices:", {Array{kAgent}});
  ASSERT_TRUE(*answer && !**answer);
  EXPECT_EQ((**answer).error().reason,
            "-[ORBServiceManagerOperatorServer stopServices:]: unrecognized selector sent to "
            "instance");
}

}  // namespace
