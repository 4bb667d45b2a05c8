#include "ServiceManager/Settings/SettingsQuestions.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/Settings/NullNotificationCenter.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

// Two settings servers, "one" and "two". The test plays the thread of each, and runs its work.
class SettingsQuestionsTest : public testing::Test {
 protected:
  SettingsQuestionsTest() {
    for (const char* source : {"one", "two"}) {
      factories_.add(std::string(source) + "SettingsClientWithDelegate:",
                     [this, source](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                       auto client = std::make_unique<FakeSettingsClient>(settings_[source]);
                       client->isHung = &isHung_[source];
                       return client;
                     });
      settings_[source] = {{"key", std::string("of ") + source}};
    }
  }

  // The answer, once it has come.
  std::shared_ptr<std::optional<SettingsQuestions::Values>> ask(
      std::vector<SettingsQuestions::Setting> settings) {
    auto answer = std::make_shared<std::optional<SettingsQuestions::Values>>();
    questions_->valuesOf(std::move(settings), [answer](SettingsQuestions::Values values) {
      *answer = std::move(values);
    });
    loop_.runReady();
    return answer;
  }
  void serve(const std::string& server) {
    for (auto& work : std::exchange(work_[server], {})) work(parts_);
    loop_.runReady();
  }

  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  FakeSystemInformation system_;
  NotificationCenter center_;
  NullNotificationCenter nullCenter_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  NamedConnections connections_{loop_, transport_, center_, log_,
                                [](std::string_view name) { return std::string(name); }};
  const ProtocolTable protocols_;
  SettingsClientFactories factories_;
  std::map<std::string, std::map<std::string, Value>> settings_;
  std::map<std::string, bool> isHung_;
  const SettingsParts parts_{{loop_, connections_, nullCenter_, center_, protocols_, system_},
                             factories_};
  std::map<std::string, std::deque<SettingsWorker::Work>> work_;
  bool hasThread_ = false;  // for servers that share one
  std::set<std::string> isOnOwnThread_;
  std::optional<SettingsQuestions> questions_{
      std::in_place,
      SettingsQuestions::Environment{
          .worker =
              {.perform =
                   [this](const std::string& server, SettingsWorker::Work work) {
                     work_[isOnOwnThread_.contains(server) ? server + "'s own" : server].push_back(
                         std::move(work));
                   },
               .giveThread = [this](const std::string& server) -> SettingsWorker::OnSharedThread {
                 if (!hasThread_ || !isOnOwnThread_.insert(server).second) return {};
                 return [this, server](SettingsWorker::Work work) {
                   work_[server].push_back(std::move(work));
                 };
               }},
          .onMain = [this](RunLoop::Callback callback) { loop_.post(std::move(callback)); },
          .now = [this] { return loop_.now(); },
          .onRestart = [] {}}};
};

TEST_F(SettingsQuestionsTest, AHungServerDelaysNoAnswerOfAnother) {
  const auto hung = ask({{"one", "key"}});
  const auto healthy = ask({{"two", "key"}});
  serve("two");
  ASSERT_TRUE(*healthy);
  EXPECT_THAT(**healthy, ElementsAre(Value("of two")));
  EXPECT_FALSE(*hung);
  serve("one");
  ASSERT_TRUE(*hung);
  EXPECT_THAT(**hung, ElementsAre(Value("of one")));
}

TEST_F(SettingsQuestionsTest, AServerGetsItsThreadBetweenTwoQuestions) {
  const auto first = ask({{"one", "key"}});
  hasThread_ = true;
  const auto second = ask({{"one", "key"}});  // The first one has no answer yet.
  serve("one");
  EXPECT_TRUE(*first && *second);
  const auto third = ask({{"one", "key"}});
  serve("one");  // The first client ends on its thread.
  EXPECT_FALSE(*third);
  settings_["one"]["key"] = "new";
  serve("one's own");
  ASSERT_TRUE(*third);
  EXPECT_THAT(**third, ElementsAre(Value("new")));
}

TEST_F(SettingsQuestionsTest, AQuestionToTwoServersWaitsForBoth) {
  const auto answer =
      ask({{"two", std::nullopt}, {"two", "key"}, {std::nullopt, "key"}, {"one", "key"}});
  serve("one");
  EXPECT_FALSE(*answer);
  serve("two");
  ASSERT_TRUE(*answer);
  EXPECT_THAT(**answer, ElementsAre(Value(), Value("of two"), Value(), Value("of one")));
}

TEST_F(SettingsQuestionsTest, WithoutAServerTheAnswerIsNil) {
  const auto answer = ask({{std::nullopt, "key"}});
  ASSERT_TRUE(*answer);
  EXPECT_THAT(**answer, ElementsAre(Value()));
}

TEST_F(SettingsQuestionsTest, EachSourceHasItsState) {
  isHung_["two"] = true;
  ask({{"one", "key"}, {"two", "key"}, {"three", "key"}});
  serve("one");
  EXPECT_EQ(questions_->askedSources().size(), 1u);
  serve("two");
  serve("three");
  EXPECT_EQ(questions_->askedSources().at("one"), AskedSource::kAnswers);
  EXPECT_TRUE(questions_->isHung("two"));
  EXPECT_EQ(questions_->askedSources().at("three"), AskedSource::kMissing);
}

TEST_F(SettingsQuestionsTest, TheLastValueIsKeptWithItsTime) {
  ask({{"one", "key"}});
  loop_.advanceBy(1s);
  serve("one");
  const auto known = questions_->lastValues().at({"one", "key"});
  EXPECT_EQ(known.value, Value("of one"));
  EXPECT_EQ(known.at, loop_.now());
}

TEST_F(SettingsQuestionsTest, AnAbsentSettingIsKeptUntilItsServerDoesNotAnswer) {
  settings_["one"].clear();
  ask({{"one", "key"}});
  serve("one");
  EXPECT_EQ(questions_->lastValues().at({"one", "key"}).value, Value());
  isHung_["one"] = true;
  ask({{"one", "key"}, {"three", "key"}});
  serve("one");
  serve("three");
  EXPECT_THAT(questions_->lastValues(), IsEmpty());
}

TEST_F(SettingsQuestionsTest, AnAnswerAfterTheEndIsDropped) {
  const auto answer = ask({{"one", "key"}});
  questions_.reset();
  serve("one");
  EXPECT_FALSE(*answer);
}

}  // namespace
