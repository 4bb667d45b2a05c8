// Distributed notifications on a real bus with the product's configuration.

#include "Platform/Linux/Notifications/NotificationBus.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Notifications/DistributedNotificationCenter_contract.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/NotificationBus_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

// The rights of every user on a system bus, with our policy for it.
std::string systemBusConfiguration() {
  return "<busconfig><listen>unix:path=/none</listen><auth>EXTERNAL</auth>"
         "<policy context=\"default\"><allow user=\"*\"/><deny own=\"*\"/>"
         "<deny send_type=\"method_call\"/><allow send_type=\"signal\"/>"
         "<allow send_requested_reply=\"true\" send_type=\"method_return\"/>"
         "<allow receive_type=\"method_call\"/><allow receive_type=\"method_return\"/>"
         "<allow receive_type=\"error\"/><allow receive_type=\"signal\"/>"
         "<allow send_destination=\"org.freedesktop.DBus\"/></policy><include>" +
         std::string(SYSTEM_BUS_POLICY) + "</include></busconfig>";
}

class BusHarness final : public NotificationHarness {
 public:
  RunLoop& loop() override { return *loop_; }
  DistributedNotificationCenter& center() override { return *center_; }
  DistributedNotificationCenter& other() override { return *other_; }
  FakeLogSink& log() override { return sink_; }
  void stopBus() override { bus_.stop(); }
  void startBus() override { bus_.start(); }

 private:
  TestBus bus_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(AsioRunLoop::create().value());
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  const std::unique_ptr<DistributedNotificationCenter> center_ =
      makeBusNotificationCenter(*loop_, bus_.address(), log_);
  const std::unique_ptr<DistributedNotificationCenter> other_ =
      makeBusNotificationCenter(*loop_, bus_.address(), log_);
};

std::unique_ptr<NotificationHarness> makeBusHarness() { return std::make_unique<BusHarness>(); }

INSTANTIATE_TEST_SUITE_P(Bus, DistributedNotificationCenterContract,
                         testing::Values(&makeBusHarness));

TEST_F(NotificationBusTest, AForeignSignalOfOurLayoutIsDelivered) {
  const Observation observer = center_->addObserver("a", std::nullopt, note());
  EXPECT_EQ(postAsForeigner({}, {"string:a", "array:string:object"}), 0);
  deliver();
  EXPECT_THAT(got_, testing::ElementsAre("a"));
}

TEST_F(NotificationBusTest, AForeignSignalOfAnotherLayoutIsDropped) {
  const Observation all = center_->addObserver(std::nullopt, std::nullopt, note());
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {},
           {"int32:1"},
           {"string:a"},
           {"string:a", "string:object"},
           {"string:a", "array:int32:1"},
           {"string:a", "array:string:object", "variant:string:text"},
           {"string:a", "array:string:object", "string:text"}}) {
    EXPECT_EQ(postAsForeigner({}, arguments), 0);
  }
  deliver();
  EXPECT_THAT(got_, testing::ElementsAre("com.vantor.end"));
}

TEST_F(NotificationBusTest, AnotherUserMayListenButNotPost) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  const std::vector<std::string> nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                           "--clear-groups"};
  const Observation observer = center_->addObserver("a", std::nullopt, note());
  postAsForeigner(nobody, {"string:a", "array:string:object"});
  EXPECT_EQ(postAsForeigner({}, {"string:a", "array:string:object"}), 0);
  deliver();
  EXPECT_THAT(got_, testing::ElementsAre("a"));

  const auto callBus = [&](const std::string& method, const std::string& argument) {
    std::vector<std::string> call = nobody;
    call.insert(call.end(), {"/usr/bin/dbus-send", "--bus=" + bus_.address(), "--print-reply",
                             "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus." + method, argument});
    return ChildProgram(call, {}).waitForExit().number;
  };
  EXPECT_EQ(callBus("AddMatch", "string:type='signal'"), 0);
  EXPECT_NE(callBus("RequestName", "string:com.vantor.stranger"), 0);
}

TEST_F(NotificationBusTest, ALongNameIsObservedToo) {
  const std::string name(2000, 'n');
  const Observation observer = center_->addObserver(name, std::nullopt, note());
  post(name + "n");
  post(name);
  deliver();
  EXPECT_THAT(got_, testing::ElementsAre(name));
}

TEST_F(NotificationBusTest, AnUnencodableNotificationIsLoggedAndTheBusStays) {
  const Observation all = center_->addObserver("a", std::nullopt, note());
  post("ill-formed \xFF");
  post(std::string("nul \0", 5));
  post("a", Dictionary{{"key", "\xC0\x80"}});
  post("a", Dictionary{{"key", std::string(64 * 1024, 'x')}});
  Value deep = Dictionary{{"key", 1}};
  for (int depth = 0; depth < 16; ++depth) deep = Dictionary{{"key", deep}};
  post("a", deep);
  deliver();
  EXPECT_THAT(got_, testing::IsEmpty());
  EXPECT_EQ(sink_.texts().size(), 5U);
  for (const std::string& text : sink_.texts())
    EXPECT_THAT(text, testing::HasSubstr(" was not posted: "));
}

TEST_F(NotificationBusTest, ABusThatStartsLateIsFoundToo) {
  bus_.stop();
  const auto early = makeBusNotificationCenter(*loop_, bus_.address(), log_);
  const Observation observer = early->addObserver("a", std::nullopt, note());
  const Observation returned = early->observeReturn([&] { loop_->stop(); });
  bus_.start();
  runOrFail(*loop_, "the bus's return is not told");
  early->postNotificationName("a", std::nullopt, {}, NSNotificationPosting::kThisSession);
  runUntilGotSomething();
  EXPECT_THAT(got_, testing::ElementsAre("a"));
}

TEST_F(NotificationBusTest, PostsBeforeTheRegistrationAreNotLost) {
  const auto fresh = makeBusNotificationCenter(*loop_, bus_.address(), log_);
  const Observation observer = center_->addObserver("a", std::nullopt, note());
  fresh->postNotificationName("a", std::nullopt, {}, NSNotificationPosting::kThisSession);
  runUntilGotSomething();
  EXPECT_THAT(got_, testing::ElementsAre("a"));
}

// A notification "a" of so many bytes.
Value userInfoOf(std::size_t bytes) {
  // The message's other parts and the overhead of D-Bus, measured with rejected messages.
  constexpr std::size_t kFrame = 50;
  return Dictionary{{"key", std::string(bytes - kFrame, 'x')}};
}

TEST_F(NotificationBusTest, ANotificationsSizeIsLimited) {
  const Observation observer = center_->addObserver("a", std::nullopt, note());
  // Up to the first that is rejected.
  std::size_t taken = 0;
  for (std::size_t size = kMaxNotificationBytes - 64; sink_.texts().empty(); ++size) {
    post("a", userInfoOf(size));
    deliver();
    if (sink_.texts().empty()) ++taken;
  }
  EXPECT_GT(taken, 0U);
  EXPECT_EQ(got_.size(), taken);
  EXPECT_THAT(sink_.texts(), testing::ElementsAre(testing::HasSubstr(
                                 "it has " + std::to_string(kMaxNotificationBytes + 1) +
                                 " bytes, more than " + std::to_string(kMaxNotificationBytes))));
}

TEST_F(NotificationBusTest, NamesAroundTheLongestRuleAreAllObserved) {
  for (std::size_t length = kMaxMatchRuleBytes - 150; length <= kMaxMatchRuleBytes; ++length) {
    const std::string name(length, 'n');
    const Observation observer = center_->addObserver(name, std::nullopt, note());
    post(name);
    deliver();
    ASSERT_THAT(got_, testing::ElementsAre(name));
    got_.clear();
  }
}

TEST_F(NotificationBusTest, MessagesBeforeTheEndOfTheBusAreDelivered) {
  const Observation observer = center_->addObserver("a", std::nullopt, note());
  const auto other = makeBusNotificationCenter(*loop_, bus_.address(), log_, 60s);
  const Observation registered =
      other->addObserver("b", std::nullopt, [](const DistributedNotification&) {});
  // The bus has confirmed this after the signal, so it has sent that to all clients.
  EXPECT_EQ(postAsForeigner({}, {"string:a", "array:string:object"}), 0);
  const Observation confirmed =
      other->addObserver("c", std::nullopt, [](const DistributedNotification&) {});
  bus_.stop();
  runUntilGotSomething();
  EXPECT_THAT(got_, testing::ElementsAre("a"));
}

TEST(NotificationBusAddressTest, AnInvalidAddressIsLoggedOnceAndHasNoBus) {
  const std::unique_ptr<AsioRunLoop> loop = std::move(AsioRunLoop::create().value());
  FakeLogSink sink;
  SystemLog log(sink, "program");
  for (const char* address : {"", "nonsense", "tcp:host=localhost", "unix:abstract=name"}) {
    sink.clear();
    const auto center = makeBusNotificationCenter(*loop, address, log);
    EXPECT_THAT(sink.texts(), testing::ElementsAre(testing::HasSubstr("expected \"unix:path=")));
    center->postNotificationName("a", std::nullopt, {}, NSNotificationPosting::kThisSession);
    EXPECT_THAT(sink.texts().back(), testing::HasSubstr("was not posted"));
  }
}

TEST(SystemBusTest, WithOurPolicyOnlyRootMayPost) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  TestBus bus(systemBusConfiguration());
  const std::unique_ptr<AsioRunLoop> loop = std::move(AsioRunLoop::create().value());
  FakeLogSink sink;
  SystemLog log(sink, "program");
  const auto center = makeBusNotificationCenter(*loop, bus.address(), log, 60s);
  std::vector<std::string> objects;
  const auto observer =
      center->addObserver("a", std::nullopt, [&](const DistributedNotification& notification) {
        objects.push_back(notification.object.value_or("none"));
        if (objects.back() == "root") loop->stop();
      });
  const auto send = [&](std::vector<std::string> runner, const std::string& object) {
    runner.insert(runner.end(), {"/usr/bin/dbus-send", "--bus=" + bus.address(), "--type=signal",
                                 "/com/vantor/DistributedNotification",
                                 "com.vantor.DistributedNotification.Posted", "string:a",
                                 "array:string:" + object});
    ChildProgram(runner, {}).waitForExit();
  };
  send({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"}, "nobody");
  send({}, "root");
  runOrFail(*loop, "root's post has not come");
  EXPECT_THAT(objects, testing::ElementsAre("root"));
}

TEST_F(NotificationBusTest, AnObservationMayOutliveItsCenter) {
  auto center = makeBusNotificationCenter(*loop_, bus_.address(), log_);
  Observation observer = center->addObserver("a", std::nullopt, note());
  center.reset();
  observer.reset();
  deliver();
}

}  // namespace
}  // namespace platform
