#include "Platform/Linux/BackgroundServices/ServiceNotify.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;

constexpr std::chrono::milliseconds kAnnounceTimeout(1);

// The service manager's end of the socket.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& address)
      : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, address.data(), address.size());
    std::size_t size = offsetof(sockaddr_un, sun_path) + address.size();
    if (address[0] == '@') {
      name.sun_path[0] = '\0';
    } else {
      ++size;
    }
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&name),
                     static_cast<socklen_t>(size)),
              0)
        << std::strerror(errno);
  }

  // The next announcement, "" if there is none. It has arrived by the time that send() returns.
  std::string next() {
    std::array<char, 256> message;
    const ssize_t size = ::recv(socket_.get(), message.data(), message.size(), 0);
    return size < 0 ? "" : std::string(message.data(), static_cast<std::size_t>(size));
  }

 private:
  UniqueFd socket_;
};

class ServiceNotifyTest : public testing::Test {
 protected:
  ~ServiceNotifyTest() override {
    for (const char* variable : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
      ::unsetenv(variable);
  }

  TemporaryFolder folder_;
};

TEST_F(ServiceNotifyTest, AnnouncesToASocketWithAPath) {
  NotifySocket socket(folder_.path("notify"));
  ServiceNotify notify(folder_.path("notify"), kAnnounceTimeout);
  EXPECT_TRUE(notify.announceReady());
  EXPECT_EQ(socket.next(), "READY=1");
  EXPECT_TRUE(notify.announceStatus("idle: it has no catalogue\nREADY=1"));
  EXPECT_EQ(socket.next(), "STATUS=idle: it has no catalogue");
  EXPECT_TRUE(notify.announceStopping());
  EXPECT_EQ(socket.next(), "STOPPING=1");
  EXPECT_EQ(socket.next(), "");
}

TEST_F(ServiceNotifyTest, AnnouncesToASocketInTheAbstractNamespace) {
  const std::string unique = "@" + folder_.path();
  for (const std::string& address : {unique, unique + std::string(108 - unique.size(), 'a')}) {
    NotifySocket socket(address);
    ServiceNotify notify(address, kAnnounceTimeout);
    EXPECT_TRUE(notify.announceReady());
    EXPECT_EQ(socket.next(), "READY=1");
  }
}

TEST_F(ServiceNotifyTest, APathMayFillTheAddress) {
  const std::string path = folder_.path(std::string(107 - folder_.path().size() - 1, 'p'));
  ASSERT_EQ(path.size(), 107u);
  NotifySocket socket(path);
  EXPECT_TRUE(ServiceNotify(path, kAnnounceTimeout).announceReady());
  EXPECT_EQ(socket.next(), "READY=1");
}

TEST_F(ServiceNotifyTest, WithoutAnAddressNothingIsSent) {
  EXPECT_TRUE(ServiceNotify("", kAnnounceTimeout).announceReady());
  EXPECT_TRUE(ServiceNotify("", kAnnounceTimeout).announceStopping());
}

TEST_F(ServiceNotifyTest, AnImpossibleAddressIsAnErrorThatSaysWhatWasExpected) {
  for (const std::string& address :
       {std::string("/"), std::string("@"), std::string("notify"), std::string("vsock:2:1"),
        "/" + std::string(107, 'p'), "@" + std::string(108, 'a')}) {
    const auto announced = ServiceNotify(address, kAnnounceTimeout).announceReady();
    ASSERT_FALSE(announced) << address;
    EXPECT_EQ(announced.error().code, ErrorCode::kInvalid);
    EXPECT_THAT(announced.error().context, HasSubstr("NOTIFY_SOCKET \"" + address + "\""));
  }
}

TEST_F(ServiceNotifyTest, AListenerThatIsGoneIsAnError) {
  const auto missing = ServiceNotify(folder_.path("missing"), kAnnounceTimeout).announceReady();
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().osError, ENOENT);
  {
    NotifySocket closed(folder_.path("closed"));
  }
  EXPECT_EQ(ServiceNotify(folder_.path("closed"), kAnnounceTimeout).announceReady().error().osError,
            ECONNREFUSED);
}

TEST_F(ServiceNotifyTest, AListenerThatHangsTimesOut) {
  NotifySocket hanging(folder_.path("hanging"));
  ServiceNotify notify(folder_.path("hanging"), kAnnounceTimeout);
  Result<void> announced;
  // The queue holds as many messages as the system allows; the first that does not fit times out.
  for (int sent = 0; announced && sent < 100'000; ++sent) announced = notify.announceReady();
  ASSERT_FALSE(announced);
  EXPECT_EQ(announced.error().osError, EAGAIN);
}

TEST_F(ServiceNotifyTest, TheAddressIsTakenOutOfTheEnvironment) {
  const std::string path = folder_.path("notify");
  NotifySocket socket(path);
  ASSERT_EQ(::setenv("NOTIFY_SOCKET", path.c_str(), 1), 0);
  ServiceNotify notify = ServiceNotify::takeFromEnvironment();
  EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr);
  EXPECT_TRUE(notify.announceReady());
  EXPECT_EQ(socket.next(), "READY=1");

  ServiceNotify second = ServiceNotify::takeFromEnvironment();
  EXPECT_TRUE(second.announceReady());
  EXPECT_EQ(socket.next(), "");
}

TEST_F(ServiceNotifyTest, TheWatchdogIsThatOfThisProcess) {
  struct Case {
    const char* time;
    std::string process;
    std::chrono::microseconds expected;
  };
  const std::string own = std::to_string(::getpid());
  for (const Case& one : {Case{"3000000", own, std::chrono::seconds(3)}, Case{"7", "", {}},
                          Case{"7", "1", {}}, Case{"", own, {}}, Case{"3s", own, {}},
                          Case{"-3", own, {}}, Case{"99999999999999999999", own, {}}}) {
    ::setenv("WATCHDOG_USEC", one.time, 1);
    ::setenv("WATCHDOG_PID", one.process.c_str(), 1);
    if (one.process.empty()) ::unsetenv("WATCHDOG_PID");
    const auto expected = one.process.empty() ? std::chrono::microseconds(7) : one.expected;
    EXPECT_EQ(ServiceNotify::takeFromEnvironment().watchdogTime(), expected) << one.time;
    EXPECT_EQ(std::getenv("WATCHDOG_USEC"), nullptr);
    EXPECT_EQ(std::getenv("WATCHDOG_PID"), nullptr);
  }
}

TEST_F(ServiceNotifyTest, TheNextProgramOfThisProcessGetsTheVariablesBack) {
  NotifySocket socket(folder_.path("notify"));
  const ServiceNotify notify(folder_.path("notify"), kAnnounceTimeout, std::chrono::seconds(2));
  notify.returnToEnvironment();
  ServiceNotify next = ServiceNotify::takeFromEnvironment();
  EXPECT_EQ(next.watchdogTime(), std::chrono::seconds(2));
  EXPECT_TRUE(next.announceReloading());
  EXPECT_THAT(socket.next(), testing::MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
  EXPECT_TRUE(next.announceAlive("keeps 2 jobs"));
  EXPECT_EQ(socket.next(), "WATCHDOG=1\nSTATUS=keeps 2 jobs");
}

TEST_F(ServiceNotifyTest, AnAnnouncementOfLifeNeverBlocks) {
  NotifySocket hanging(folder_.path("hanging"));
  ServiceNotify notify(folder_.path("hanging"), std::chrono::hours(1));
  Result<void> announced;
  for (int sent = 0; announced && sent < 100'000; ++sent) announced = notify.announceAlive("");
  ASSERT_FALSE(announced);
  EXPECT_EQ(announced.error().osError, EAGAIN);
}

}  // namespace
}  // namespace platform
