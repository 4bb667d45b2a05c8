// Settings servers and the configuration server, which end, start again and hang.

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Global Settings/GlobalSettingsClient/FakeSettingsServer_fixture.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/Settings/SettingsQuestions.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr char kPrimaryName[] = "com.example.status";
constexpr char kPrimaryProtocol[] = "StatusProtocol";

// The configuration server's object. Its connections are real.
class PrimaryStatus final : public MessageReceiver {
 public:
  MessageResult receiveMessage(std::string_view selector, const Array&) override {
    EXPECT_EQ(selector, "isServerUp");
    ++questions;
    return answer;
  }
  MessageResult answer = Value(true);
  int questions = 0;
};

// The work of the servers' threads and of the main thread waits in two queues, and the test serves
// each.
class SettingsServersTest : public testing::Test {
 protected:
  using Setting = SettingsQuestions::Setting;
  using Values = SettingsQuestions::Values;

  SettingsServersTest() {
    protocols_.add(kPrimaryProtocol, Protocol(kPrimaryProtocol, {{"isServerUp"}}));
  }

  // The settings that a prefix's server holds; naming them makes the prefix resolve.
  std::map<std::string, Value>& settings(const std::string& prefix) {
    factories_.add(prefix + "SettingsClientWithDelegate:",
                   [this, prefix](KLXGlobalSettingsClientDelegate& delegate) {
                     auto client =
                         std::make_unique<FakeSettingsClient>(settings_[prefix], &forgetCalls_);
                     client->isHung = &isHung_[prefix];
                     clients_[prefix] = {&delegate, client.get()};
                     return SettingsClientResult(std::move(client));
                   });
    return settings_[prefix];
  }
  void restart(const std::string& prefix) {
    const auto& [delegate, client] = clients_.at(prefix);
    delegate->globalSettingsServerDidRestart(*client);
  }

  static void serve(std::deque<RunLoop::Callback>& work) {
    while (!work.empty()) {
      RunLoop::Callback next = std::move(work.front());
      work.pop_front();
      next();
    }
  }
  void serveBoth() {
    serve(onWorker_);
    serve(onMain_);
  }
  Values valuesOf(std::vector<Setting> settings) {
    std::optional<Values> values;
    questions_->valuesOf(std::move(settings), [&](Values answer) { values = std::move(answer); });
    EXPECT_FALSE(values);
    serveBoth();
    EXPECT_TRUE(values);
    return std::move(values).value_or(Values());
  }
  bool isPrimaryUp() {
    std::optional<bool> isUp;
    questions_->isPrimaryServiceUp([&](bool answer) { isUp = answer; });
    serveBoth();
    EXPECT_TRUE(isUp);
    return isUp.value_or(false);
  }

  // The configuration server is another program, which serves until this is destroyed.
  struct PrimaryProgram {
    PrimaryProgram(SettingsServersTest& test, PrimaryStatus& status)
        : transport(test.network_, {200, 0, 0}),
          program(test.loop_, transport, &place),
          authenticator(test.system_),
          connection(program.connections.makeConnection()) {
      connection->setDelegate(&authenticator);
      connection->setRootObject(
          std::make_shared<NSProtocolChecker>(&status, test.protocols_.find(kPrimaryProtocol)));
      EXPECT_TRUE(connection->registerName(kPrimaryName));
    }
    FakePeerTransport transport;
    ConnectedProgram program;
    KLXConnectionAuthenticator authenticator;
    std::shared_ptr<NSConnection> connection;
  };
  static std::string place(std::string_view name) { return "/names/" + std::string(name); }

  struct MadeClient {
    KLXGlobalSettingsClientDelegate* delegate;
    FakeSettingsClient* client;
  };

  Logger2Lines lines_;
  VirtualRunLoop loop_;
  FakeSystemInformation system_;
  ProtocolTable protocols_;
  FakeNotificationBus bus_{loop_};
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  ConnectedProgram daemon_{loop_, transport_, &place};
  std::unique_ptr<DistributedNotificationCenter> center_ = bus_.makeCenter(daemon_.log);
  std::map<std::string, std::map<std::string, Value>> settings_;
  std::map<std::string, bool> isHung_;
  std::map<std::string, MadeClient> clients_;
  int forgetCalls_ = 0;
  SettingsClientFactories factories_;
  const SettingsParts parts_{
      {loop_, daemon_.connections, *center_, daemon_.center, protocols_, system_}, factories_};
  std::deque<RunLoop::Callback> onWorker_;
  std::deque<RunLoop::Callback> onMain_;
  int restarts_ = 0;
  std::optional<SettingsQuestions> questions_{
      std::in_place,
      SettingsQuestions::Environment{
          .worker = {[this](const std::string&, SettingsWorker::Work work) {
            onWorker_.push_back([this, work = std::move(work)]() mutable { work(parts_); });
          }},
          .onMain = [this](RunLoop::Callback call) { onMain_.push_back(std::move(call)); },
          .now = [this] { return loop_.now(); },
          .onRestart = [this] { ++restarts_; }}};
};

// Settings.

TEST_F(SettingsServersTest, TheValuesComeInTheirOrder) {
  settings("common") = {{"mode", "on"}, {"level", 3}};
  settings("update") = {{"mode", "off"}};
  EXPECT_THAT(valuesOf({{"update", "mode"}, {"common", "level"}, {"common", "mode"}}),
              ElementsAre(Value("off"), Value(3), Value("on")));
}

TEST_F(SettingsServersTest, AMissingSettingOrServerIsNil) {
  settings("common") = {{"mode", "on"}};
  EXPECT_THAT(valuesOf({{"common", "absent"}, {"unknown", "mode"}, {std::nullopt, "mode"}}),
              ElementsAre(Value(), Value(), Value()));
}

TEST_F(SettingsServersTest, AQuestionWithoutAKeyOnlyMakesTheClient) {
  settings("common");
  EXPECT_THAT(valuesOf({{"common", std::nullopt}}), ElementsAre(Value()));
  EXPECT_TRUE(clients_.contains("common"));
  EXPECT_THAT(questions_->askedSources(), ElementsAre(Pair("common", AskedSource::kAnswers)));
}

TEST_F(SettingsServersTest, AnswersOfAServerComeInTheOrderOfTheQuestions) {
  settings("common") = {{"mode", "on"}};
  std::vector<std::string> answers;
  questions_->valuesOf({{"common", "mode"}}, [&](const Values&) { answers.push_back("first"); });
  questions_->valuesOf({{"common", "level"}}, [&](const Values&) { answers.push_back("second"); });
  questions_->valuesOf({{"common", "mode"}}, [&](const Values&) { answers.push_back("third"); });
  serve(onWorker_);
  EXPECT_THAT(answers, IsEmpty());
  serve(onMain_);
  EXPECT_THAT(answers, ElementsAre("first", "second", "third"));
}

TEST_F(SettingsServersTest, AnswersAfterItsEndAreDropped) {
  settings("common") = {{"mode", "on"}};
  int answers = 0;
  questions_->valuesOf({{"common", "mode"}}, [&](const Values&) { ++answers; });
  serve(onWorker_);
  questions_->valuesOf({{"common", "mode"}}, [&](const Values&) { ++answers; });
  questions_.reset();
  serveBoth();
  EXPECT_EQ(answers, 0);
}

// Restarts of the settings servers.

TEST_F(SettingsServersTest, ManyRestartsOfAServerAreOneCall) {
  settings("common");
  settings("update");
  valuesOf({{"common", "mode"}, {"update", "mode"}});
  restart("common");
  restart("common");
  EXPECT_EQ(restarts_, 0);
  serve(onMain_);
  EXPECT_EQ(restarts_, 1);
  restart("common");
  restart("update");
  serve(onMain_);
  EXPECT_EQ(restarts_, 3);
}

TEST_F(SettingsServersTest, ARestartAfterItsEndIsIgnored) {
  settings("common");
  valuesOf({{"common", "mode"}});
  restart("common");
  questions_.reset();
  serveBoth();
  EXPECT_EQ(restarts_, 0);
}

TEST_F(SettingsServersTest, EachConnectionIsForgottenOnceForManyCalls) {
  settings("common");
  settings("update");
  valuesOf({{"common", "mode"}, {"update", "mode"}});
  questions_->forgetConnections();
  questions_->forgetConnections();
  EXPECT_EQ(forgetCalls_, 0);
  serve(onWorker_);
  EXPECT_EQ(forgetCalls_, 2);
  questions_->forgetConnections();
  serve(onWorker_);
  EXPECT_EQ(forgetCalls_, 4);
}

// The configuration server.

TEST_F(SettingsServersTest, WithoutAClientThePrimaryServiceIsDown) {
  PrimaryStatus status;
  const PrimaryProgram program(*this, status);
  EXPECT_FALSE(isPrimaryUp());
  EXPECT_EQ(status.questions, 0);
}

TEST_F(SettingsServersTest, ThePrimaryServiceSaysWhetherItIsUp) {
  PrimaryStatus status;
  const PrimaryProgram program(*this, status);
  questions_->makePrimaryServiceClient(kPrimaryName, kPrimaryProtocol, "com.example.started");
  EXPECT_TRUE(isPrimaryUp());
  status.answer = Value(false);
  EXPECT_FALSE(isPrimaryUp());
  status.answer = Value("YES");
  EXPECT_FALSE(isPrimaryUp());
  EXPECT_EQ(status.questions, 3);
}

TEST_F(SettingsServersTest, APrimaryServiceThatCannotBeReachedIsDown) {
  questions_->makePrimaryServiceClient(kPrimaryName, kPrimaryProtocol, "com.example.started");
  EXPECT_FALSE(isPrimaryUp());
}

TEST_F(SettingsServersTest, AHungPrimaryServiceIsAskedAgainAfterItsStart) {
  PrimaryStatus status;
  std::optional<PrimaryProgram> program(std::in_place, *this, status);
  questions_->makePrimaryServiceClient(kPrimaryName, kPrimaryProtocol, "com.example.started");
  program->transport.hang();
  EXPECT_FALSE(isPrimaryUp());
  program.reset();
  program.emplace(*this, status);
  EXPECT_FALSE(isPrimaryUp());
  questions_->primaryServiceDidStart();
  EXPECT_TRUE(isPrimaryUp());
}

}  // namespace
