#pragma once

// A real bus with the product's configuration, and a program that uses it.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"

namespace platform {

// A bus with the product's configuration, in its own folder. It is open to every user unless
// `clients` says something else.
class TestBus {
 public:
  static constexpr char kOpen[] =
      "<busconfig><policy context=\"default\"><allow user=\"*\"/></policy></busconfig>";

  TestBus() : TestBus(contentOfFile(NOTIFICATION_BUS_CONFIGURATION)) {}
  explicit TestBus(const std::string& configuration, const std::string& clients = kOpen) {
    // So that the bus itself, and not its folder, rejects other users.
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::others_exec,
                                 std::filesystem::perm_options::add);
    folder_.write("etc/vantor/bus.conf", configuration);
    folder_.write("run/vantor/notification-bus-clients", clients);
    if (::geteuid() != 0) {
      folder_.write("etc/vantor/notification-bus.d/owner.conf",
                    "<busconfig><policy user=\"" + std::to_string(::geteuid()) +
                        "\"><allow send_type=\"signal\" "
                        "send_interface=\"com.vantor.DistributedNotification\"/>"
                        "</policy></busconfig>");
    }
    start();
  }

  void start() {
    program_.emplace(
        std::vector<std::string>{"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                 "--print-address", "--address=" + address_,
                                 "--config-file=" + folder_.path("etc/vantor/bus.conf")},
        std::vector<std::string>{});
    EXPECT_THAT(program_->nextLine(), testing::StartsWith(address_));
  }
  void stop() {
    program_->signal(SIGKILL);
    program_->waitForExit();
  }

  ChildProgram& program() { return *program_; }
  const std::string& address() const { return address_; }

 private:
  TemporaryFolder folder_;
  const std::string address_ = "unix:path=" + folder_.path("bus");
  std::optional<ChildProgram> program_;
};

// Runs the loop until a callback stops it.
inline void runOrFail(AsioRunLoop& loop, const char* failure) {
  const auto deadline = loop.startTimer(std::chrono::seconds(60), RunLoop::Repeat::kOnce, [&] {
    ADD_FAILURE() << failure;
    loop.stop();
  });
  loop.run();
}

class NotificationBusTest : public testing::Test {
 protected:
  using Observation = std::unique_ptr<DistributedNotificationCenter::Observation>;

  // An observer is registered when addObserver() returns, however slow the bus is.
  explicit NotificationBusTest(Duration confirmationTime = std::chrono::seconds(60))
      : center_(makeBusNotificationCenter(*loop_, bus_.address(), log_, confirmationTime)) {}

  void post(std::string_view name, Value userInfo = {}) {
    center_->postNotificationName(name, std::nullopt, std::move(userInfo),
                                  NSNotificationPosting::kThisSession);
  }

  // Posts a signal from a foreign client.
  int postAsForeigner(std::vector<std::string> runner, std::vector<std::string> arguments) {
    runner.insert(runner.end(), {"/usr/bin/dbus-send", "--bus=" + bus_.address(), "--type=signal",
                                 "/com/vantor/DistributedNotification",
                                 "com.vantor.DistributedNotification.Posted"});
    runner.insert(runner.end(), arguments.begin(), arguments.end());
    return ChildProgram(runner, {}).waitForExit().number;
  }

  // Delivers all that has reached the bus.
  void deliver() {
    const Observation end = center_->addObserver(
        "com.vantor.end", std::nullopt, [&](const DistributedNotification&) { loop_->stop(); });
    post("com.vantor.end");
    runOrFail(*loop_, "the bus does not deliver");
  }
  void runUntilGotSomething() {
    const auto look = loop_->startTimer(std::chrono::milliseconds(1), RunLoop::Repeat::kEvery, [&] {
      if (!got_.empty()) loop_->stop();
    });
    runOrFail(*loop_, "nothing has come");
  }

  DistributedNotificationCenter::Handler note() {
    return
        [this](const DistributedNotification& notification) { got_.push_back(notification.name); };
  }

  TestBus bus_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(AsioRunLoop::create().value());
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  const std::unique_ptr<DistributedNotificationCenter> center_;
  std::vector<std::string> got_;
};

}  // namespace platform
