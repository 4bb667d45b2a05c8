// Buses that start and end behind a socket that stays, as the system's service manager and the job
// host keep one.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class NotificationBusSocketTest : public testing::Test {
 protected:
  NotificationBusSocketTest() {
    // Every client that gets here may do everything.
    folder_.write("bus.conf",
                  "<busconfig><listen>unix:path=/none</listen><auth>EXTERNAL</auth>"
                  "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                  "<allow eavesdrop=\"true\"/></policy>"
                  "</busconfig>");
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path_.copy(name.sun_path, sizeof(name.sun_path) - 1);
    EXPECT_EQ(::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)), 0);
    EXPECT_EQ(::listen(listening_.get(), 64), 0);
  }

  void startBus() {
    // The descriptor is passed as usual: the first one after the standard files, to this process.
    const std::string passing =
        "exec 3<&" + std::to_string(listening_.get()) + "; LISTEN_FDS=1 LISTEN_PID=$$ exec \"$@\"";
    bus_ = std::make_unique<ChildProgram>(
        std::vector<std::string>{"/bin/bash", "-c", passing, "bash", "/usr/bin/dbus-daemon",
                                 "--nofork", "--nopidfile", "--nosyslog", "--print-address",
                                 "--address=systemd:", "--config-file=" + folder_.path("bus.conf")},
        std::vector<std::string>{});
    EXPECT_THAT(bus_->nextLine(), testing::StartsWith(address_));
  }
  void killBus() {
    bus_->signal(SIGKILL);
    bus_->waitForExit();
  }

  void postAsForeigner(const std::string& name) {
    ChildProgram poster(
        {"/usr/bin/dbus-send", "--bus=" + address_, "--type=signal",
         "/com/vantor/DistributedNotification", "com.vantor.DistributedNotification.Posted",
         "string:" + name, "array:string:object"},
        {});
    EXPECT_EQ(poster.waitForExit(), ExitStatus{}) << poster.errors();
  }

  // A connection that waits for the next bus.
  UniqueFd nextConnection() {
    const auto come =
        loop_->watchReadable(listening_.get(), Urgency::kOrdinary, [&] { loop_->stop(); });
    EXPECT_TRUE(come);
    runOrFail("nobody comes for the next bus");
    return UniqueFd(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }

  void runFor(Duration time) {
    const auto end = loop_->startTimer(time, RunLoop::Repeat::kOnce, [&] { loop_->stop(); });
    loop_->run();
  }
  void runOrFail(const char* failure) {
    const auto deadline = loop_->startTimer(60s, RunLoop::Repeat::kOnce, [&] {
      ADD_FAILURE() << failure;
      loop_->stop();
    });
    loop_->run();
  }
  void runUntilGot(const std::string& name, int times) {
    const auto look = loop_->startTimer(1ms, RunLoop::Repeat::kEvery, [&] {
      if (std::ranges::count(got_, name) >= times) loop_->stop();
    });
    runOrFail("not all that was posted has come");
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_.path("bus");
  const std::string address_ = "unix:path=" + path_;
  UniqueFd listening_{::socket(AF_UNIX, SOCK_STREAM, 0)};  // inherited
  std::unique_ptr<ChildProgram> bus_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(AsioRunLoop::create().value());
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  std::vector<std::string> got_;
};

TEST_F(NotificationBusSocketTest, MessagesOfTheOldBusDoNotEndTheNextConnection) {
  startBus();
  const auto center = makeBusNotificationCenter(*loop_, address_, log_, 60s);
  const auto all = center->addObserver(
      std::nullopt, std::nullopt,
      [&](const DistributedNotification& notification) { got_.push_back(notification.name); });
  postAsForeigner("first");
  runUntilGot("first", 1);
  runFor(600ms);  // The connection lasts, so that the next one follows at once.
  for (int i = 0; i < 5; ++i) postAsForeigner("before the end");
  const auto other = makeBusNotificationCenter(*loop_, address_, log_, 60s);
  // The bus has confirmed this after the signals, so it has sent those to all clients.
  const auto confirmed =
      other->addObserver("b", std::nullopt, [](const DistributedNotification&) {});
  killBus();
  const UniqueFd next = nextConnection();
  runUntilGot("before the end", 5);
  runFor(20ms);  // Handles the rest of the old connection.
  pollfd entry{next.get(), POLLRDHUP, 0};
  EXPECT_EQ(::poll(&entry, 1, 0), 0) << "the next connection was given up";
  EXPECT_EQ(std::ranges::count(got_, "before the end"), 5);
}

}  // namespace
}  // namespace platform
