// Notices to clients in other programs, which answer late, wrongly or never.

#include <algorithm>
#include <array>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/ServiceManager/UserInterfaceClients.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

class UserInterfaceNoticesTest : public testing::Test {
 protected:
  static constexpr char kServer[] = "server";
  static constexpr char kRemovedLine[] = "7 Did remove an abandoned remote user client";
  static std::string nameItself(std::string_view name) { return std::string(name); }

  // How a window treats its notices.
  enum class Manner { kHealthy, kSlow, kNeverAnswers, kHangs, kRaises, kDies, kConformsToAnother };

  // A program with windows, which are registered over one connection.
  class Windows final {
   public:
    struct Window final : MessageTarget {
      explicit Window(Windows& itsProgram) : program(itsProgram) {}
      void takeMessage(std::string_view, const Array& arguments, MessageReply reply) override {
        notices.push_back(arguments.at(0));
        program.takeNotice(arguments.at(0), std::move(reply));
      }
      Windows& program;
      std::vector<Value> notices;
    };

    Windows(UserInterfaceNoticesTest& test, ProcessId process, Manner manner, int windows)
        : test_(test),
          manner_(manner),
          transport_(test.network_, {process, 0, 0}),
          program_(test.loop_, transport_, &nameItself) {
      connection_ = program_.connections.connectionWithRegisteredName(kServer);
      connection_->setDelegate(&delegate_);
      root_ = *connection_->rootProxy();
      const Protocol* protocol = test.protocols_.find(
          manner == Manner::kConformsToAnother ? kORBServiceManagerUserInterfaceProtocol
                                               : kORBServiceManagerUserInterfaceDelegateProtocol);
      for (int i = 0; i < windows; ++i) {
        Window& added = each.emplace_back(*this);
        proxies_.push_back(std::make_shared<NSProtocolChecker>(&added, protocol));
        EXPECT_TRUE(root_->sendMessage("registerClient:", {Value(proxies_.back())}));
      }
      if (manner == Manner::kHangs) transport_.hang();
    }

    void takeNotice(const Value& notice, MessageReply reply) {
      notices.push_back(notice);
      if (onNotice) onNotice();
      if (manner_ == Manner::kDies) return transport_.die();
      if (manner_ == Manner::kRaises) return reply.answer(raised("Garbage", "no reason"));
      if (manner_ == Manner::kNeverAnswers) return kept_.push_back(std::move(reply));
      if (manner_ != Manner::kSlow) return reply.answer(Value());
      kept_.push_back(std::move(reply));
      timers_.push_back(
          test_.loop_.startTimer(1900ms, RunLoop::Repeat::kOnce,
                                 [this, number = kept_.size() - 1] { kept_[number].answer({}); }));
    }

    MessageResult ask() { return root_->sendMessage("services", {}); }
    bool isConnected() const { return connection_->isValid(); }

    std::list<Window> each;
    std::vector<Value> notices;  // of all windows
    std::function<void()> onNotice;

   private:
    UserInterfaceNoticesTest& test_;
    const Manner manner_;
    TokenDelegate delegate_{"client", "server"};
    FakePeerTransport transport_;
    ConnectedProgram program_;
    std::shared_ptr<NSConnection> connection_;
    std::shared_ptr<NSDistantObject> root_;
    std::vector<std::shared_ptr<NSProtocolChecker>> proxies_;
    std::vector<MessageReply> kept_;
    std::vector<std::unique_ptr<RunLoopHandle>> timers_;
  };

  UserInterfaceNoticesTest() {
    addServiceManagerProtocols(protocols_);
    server_ = daemon_.connections.makeConnection();
    server_->setDelegate(&delegate_);
    EXPECT_TRUE(server_->registerName(kServer));
    server_->setRootObject(std::make_shared<NSProtocolChecker>(
        &root_, protocols_.find(kORBServiceManagerUserInterfaceProtocol)));
  }

  Windows& add(Manner manner, int windows = 1) {
    Windows& added =
        programs_.emplace_back(*this, 200 + static_cast<int>(programs_.size()), manner, windows);
    loop_.runReady();
    return added;
  }

  // Neither sends nor waits longer than the test's loop has run.
  void notify(std::int64_t process) {
    const Instant before = loop_.now();
    clients_->notifyClientsOfService("com.example.agent", UserInterfaceClients::kJobRuns, process);
    EXPECT_EQ(loop_.now(), before);
  }
  template <class Receiver>  // Windows or Window
  static std::vector<std::int64_t> processes(const Receiver& receiver) {
    std::vector<std::int64_t> numbers;
    for (const Value& notice : receiver.notices)
      numbers.push_back(notice["PID"].integer().value_or(0));
    return numbers;
  }
  std::size_t removed() { return std::ranges::count(lines_.take(), kRemovedLine); }

  // The daemon's object: registers clients, and answers one question.
  struct Root final : MessageReceiver {
    explicit Root(UserInterfaceNoticesTest& itsTest) : test(itsTest) {}
    MessageResult receiveMessage(std::string_view selector, const Array& arguments) override {
      if (selector == "services") return Value("answer");
      test.clients_->registerClient(proxyIn(arguments.at(0)));
      return Value();
    }
    UserInterfaceNoticesTest& test;
  };

  Logger2Lines lines_;
  ProtocolTable protocols_;
  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  ConnectedProgram daemon_{loop_, transport_, &nameItself};
  TokenDelegate delegate_{"server", "client"};
  Root root_{*this};
  std::unique_ptr<UserInterfaceClients> clients_ = std::make_unique<UserInterfaceClients>(0);
  std::shared_ptr<NSConnection> server_;
  std::list<Windows> programs_;
};

TEST_F(UserInterfaceNoticesTest, TwoHungClientsDelayNobody) {
  Windows& first = add(Manner::kHangs);
  Windows& healthy = add(Manner::kHealthy);
  Windows& last = add(Manner::kNeverAnswers);
  lines_.take();
  notify(1);
  loop_.runReady();
  EXPECT_THAT(processes(healthy), ElementsAre(1));
  loop_.advanceBy(2s - 1ns);
  EXPECT_EQ(clients_->userClients().size(), 3u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(clients_->userClients().size(), 1u);
  EXPECT_EQ(removed(), 2u);
  EXPECT_EQ(daemon_.sink.count("it did not answer in time"), 2u);
  EXPECT_FALSE(last.isConnected());
  notify(2);
  loop_.runReady();
  EXPECT_THAT(processes(healthy), ElementsAre(1, 2));
  EXPECT_THAT(first.notices, SizeIs(0));
}

TEST_F(UserInterfaceNoticesTest, AThousandHungClientsDelayNobody) {
  for (int program = 0; program < 11; ++program) add(Manner::kHangs, 93);
  Windows& healthy = add(Manner::kHealthy);
  ASSERT_EQ(clients_->userClients().size(), 1024u);
  for (int number = 1; number <= 40; ++number) notify(number);
  loop_.runReady();
  EXPECT_THAT(processes(healthy), SizeIs(40));
  loop_.advanceBy(2s);
  EXPECT_EQ(clients_->userClients().size(), 1u);
}

TEST_F(UserInterfaceNoticesTest, ASlowClientDelaysNobodyAndStays) {
  Windows& slow = add(Manner::kSlow);
  Windows& healthy = add(Manner::kHealthy);
  for (int number = 1; number <= 5; ++number) {
    notify(number);
    loop_.runReady();
    EXPECT_THAT(healthy.notices, SizeIs(number));
    loop_.advanceBy(1900ms);
  }
  EXPECT_THAT(processes(slow), ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(clients_->userClients().size(), 2u);
}

TEST_F(UserInterfaceNoticesTest, MisbehavingClientsInAnyOrderDisturbNobody) {
  std::array manners{Manner::kHealthy, Manner::kSlow, Manner::kHangs,
                     Manner::kRaises,  Manner::kDies, Manner::kConformsToAnother};
  do {
    Windows* healthy = nullptr;
    for (const Manner manner : manners) {
      Windows& added = add(manner);
      if (manner == Manner::kHealthy) healthy = &added;
    }
    lines_.take();
    notify(1);
    notify(2);
    loop_.runReady();
    ASSERT_THAT(processes(*healthy), ElementsAre(1, 2));
    loop_.advanceBy(2s);
    ASSERT_EQ(clients_->userClients().size(), 2u);
    ASSERT_EQ(removed(), 4u);
    clients_->removeAll();
    programs_.clear();
    loop_.runReady();
  } while (std::ranges::next_permutation(manners).found);
}

TEST_F(UserInterfaceNoticesTest, AClientRegisteredTwiceIsRemovedOnce) {
  Windows& raising = add(Manner::kRaises, 2);
  lines_.take();
  notify(1);
  loop_.runReady();
  EXPECT_THAT(raising.notices, SizeIs(2));
  EXPECT_EQ(removed(), 2u);  // two objects
  add(Manner::kNeverAnswers);
  clients_->registerClient(clients_->userClients().front());
  notify(2);
  loop_.advanceBy(2s);
  EXPECT_EQ(removed(), 1u);
  EXPECT_THAT(clients_->userClients(), SizeIs(0));
}

TEST_F(UserInterfaceNoticesTest, ABurstArrivesInOrder) {
  Windows& healthy = add(Manner::kHealthy, 3);
  std::vector<std::int64_t> expected;
  for (int number = 1; number <= 500; ++number) {
    notify(number);
    expected.push_back(number);
  }
  EXPECT_EQ(clients_->userClients().front()->messagesUnderWay(),
            UserInterfaceClients::kMaxNoticesUnderWay);
  loop_.runReady();
  for (const Windows::Window& window : healthy.each) EXPECT_EQ(processes(window), expected);
  EXPECT_THAT(clients_->userClients(), SizeIs(3));
}

TEST_F(UserInterfaceNoticesTest, AClientTooFarBehindIsDropped) {
  Windows& hung = add(Manner::kHangs, 2);
  Windows& healthy = add(Manner::kHealthy);
  lines_.take();
  const auto beyondWindow = static_cast<std::int64_t>(UserInterfaceClients::kMaxWaitingNotices);
  for (int number = 0; number < beyondWindow; ++number) {
    notify(number);
    if (number % 8 == 0) loop_.runReady();
  }
  EXPECT_EQ(clients_->userClients().size(), 3u);
  for (int number = 0; number < 17; ++number) notify(beyondWindow + number);
  EXPECT_EQ(clients_->userClients().size(), 1u);
  EXPECT_EQ(removed(), 2u);
  loop_.runReady();
  EXPECT_THAT(healthy.notices, SizeIs(beyondWindow + 17));
  EXPECT_THAT(hung.notices, SizeIs(0));
}

TEST_F(UserInterfaceNoticesTest, AClientMayAskFromInsideItsNotice) {
  Windows& asking = add(Manner::kHealthy);
  Windows& healthy = add(Manner::kHealthy);
  std::vector<MessageResult> answers;
  asking.onNotice = [&] { answers.push_back(asking.ask()); };
  notify(1);
  notify(2);
  loop_.runReady();
  EXPECT_THAT(answers, SizeIs(2));
  EXPECT_THAT(answers, Each(MessageResult(Value("answer"))));
  EXPECT_THAT(processes(asking), ElementsAre(1, 2));
  EXPECT_THAT(processes(healthy), ElementsAre(1, 2));
  EXPECT_EQ(clients_->userClients().size(), 2u);
}

TEST_F(UserInterfaceNoticesTest, ABusyDaemonDropsNoClientThatHasAnswered) {
  Windows& healthy = add(Manner::kHealthy);
  notify(1);
  loop_.sleepFor(10s);
  loop_.runReady();
  EXPECT_THAT(processes(healthy), ElementsAre(1));
  EXPECT_EQ(clients_->userClients().size(), 1u);
}

TEST_F(UserInterfaceNoticesTest, NoticesMayOutliveTheirSender) {
  add(Manner::kHangs, 2);
  add(Manner::kDies);
  add(Manner::kSlow);
  notify(1);
  clients_.reset();
  loop_.advanceBy(10s);
}

TEST_F(UserInterfaceNoticesTest, AllCanBeRemovedWithNoticesUnderWay) {
  add(Manner::kHangs);
  add(Manner::kRaises);
  lines_.take();
  for (int number = 1; number <= 40; ++number) notify(number);
  clients_->removeAll();
  loop_.advanceBy(10s);
  EXPECT_EQ(removed(), 0u);
  Windows& later = add(Manner::kHealthy);
  notify(41);
  loop_.runReady();
  EXPECT_THAT(processes(later), ElementsAre(41));
}

}  // namespace
