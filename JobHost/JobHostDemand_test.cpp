// Jobs that start when a client connects to one of their services.

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "JobHost/JobHostFixture_contract.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::UniqueFd;
using platform::Value;
using testing::HasSubstr;
using testing::SizeIs;

class JobHostDemand : public JobHostTest {
 protected:
  static constexpr char kLabel[] = "com.example.a";
  static constexpr char kService[] = "com.example.service";
  static constexpr char kOther[] = "com.example.other";

  // A job that only its clients start.
  static Dictionary demandedJob(Dictionary more = {}) {
    Dictionary dictionary{{"Label", kLabel},
                          {"Program", "/bin/true"},
                          {"MachServices", Dictionary{{kService, true}, {kOther, true}}}};
    for (const auto& [key, value] : more) dictionary.set(key, value);
    return dictionary;
  }

  // A client of the service, which waits in its backlog.
  UniqueFd connect(const std::string& service) {
    UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = root_.path("run/vantor/mach/" + service);
    EXPECT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.data(), path.size());
    EXPECT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0)
        << service;
    loop_.runReady();
    return client;
  }
  // A client of the service at this place is accepted: by a process, or by whoever has its socket.
  void accept(std::size_t place) { acceptFrom(processes_.started.back().listeners.at(place)); }
  void acceptInProcess(std::size_t place) {
    const auto descriptor = kFirstPassedDescriptor + static_cast<platform::Descriptor>(place);
    acceptFrom(processes_.copyDescriptor(processes_.started.back().process, descriptor).get());
  }

 private:
  static void acceptFrom(platform::Descriptor listener) {
    pollfd entry{listener, POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 0), 1);
    EXPECT_TRUE(UniqueFd(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)));
  }
};

TEST_F(JobHostDemand, AJobStartsWhenTheFirstClientConnects) {
  ASSERT_TRUE(submit(demandedJob()));
  loop_.advanceBy(1min);
  EXPECT_EQ(starts(), 0u);
  const UniqueFd client = connect(kService);
  EXPECT_EQ(starts(), 1u);
  EXPECT_EQ(pid(kLabel), Value(101));
  const UniqueFd second = connect(kOther);
  EXPECT_EQ(starts(), 1u);
  EXPECT_THAT(processes_.started.back().listeners, SizeIs(2));
}

TEST_F(JobHostDemand, EachOfItsServicesStartsIt) {
  ASSERT_TRUE(submit(demandedJob()));
  const UniqueFd client = connect(kOther);
  EXPECT_EQ(starts(), 1u);
  accept(1);
}

TEST_F(JobHostDemand, TheNextClientStartsItAgainAfterItsThrottle) {
  ASSERT_TRUE(submit(demandedJob()));
  UniqueFd client = connect(kService);
  accept(0);
  endLast();
  loop_.advanceBy(1min);
  EXPECT_EQ(starts(), 1u);
  client = connect(kService);
  EXPECT_EQ(starts(), 2u);
  endLast();  // It has not accepted the client.
  loop_.advanceBy(10s - 1ns);
  EXPECT_EQ(starts(), 2u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(starts(), 3u);
}

TEST_F(JobHostDemand, AClientThatLeavesDuringTheThrottleStartsNothing) {
  ASSERT_TRUE(submit(demandedJob()));
  UniqueFd client = connect(kService);
  accept(0);
  endLast();
  client = connect(kService);
  EXPECT_EQ(starts(), 1u);
  // The kernel keeps the connection of a client that has gone until it is accepted.
  accept(0);
  loop_.advanceBy(1min);
  EXPECT_EQ(starts(), 1u);
  client = connect(kService);
  EXPECT_EQ(starts(), 2u);
}

TEST_F(JobHostDemand, AFailedStartIsRetriedWhileAClientWaits) {
  ASSERT_TRUE(submit(demandedJob({{"ThrottleInterval", 2}})));
  processes_.failure = platform::Error{platform::ErrorCode::kSystem, ENOENT, "executing"};
  const UniqueFd client = connect(kService);
  EXPECT_EQ(processes_.attempts, 1);
  loop_.advanceBy(2s);
  EXPECT_EQ(processes_.attempts, 2);
  processes_.failure.reset();
  loop_.advanceBy(2s);
  EXPECT_EQ(starts(), 1u);
}

TEST_F(JobHostDemand, AClientRestartsAProcessThatItsRulesDoNot) {
  ASSERT_TRUE(submit(demandedJob({{"RunAtLoad", true}})));
  EXPECT_EQ(starts(), 1u);
  loop_.advanceBy(1min);
  endLast();
  EXPECT_EQ(starts(), 1u);
  const UniqueFd client = connect(kService);
  EXPECT_EQ(starts(), 2u);
}

TEST_F(JobHostDemand, TheNextHostWaitsForClientsToo) {
  ASSERT_TRUE(submit(demandedJob()));
  restartHost();
  EXPECT_EQ(starts(), 0u);
  const UniqueFd client = connect(kService);
  EXPECT_EQ(starts(), 1u);
  restartHost();
  EXPECT_EQ(starts(), 1u);
  EXPECT_EQ(pid(kLabel), Value(101));
  acceptInProcess(0);
  endLast();
  loop_.advanceBy(1min);
  const UniqueFd second = connect(kOther);
  EXPECT_EQ(starts(), 2u);
}

TEST_F(JobHostDemand, ARemovedJobIsNotStarted) {
  ASSERT_TRUE(submit(demandedJob()));
  ASSERT_TRUE(removeLater(kLabel)->value());
  EXPECT_NE(::access(root_.path(std::string("run/vantor/mach/") + kService).c_str(), F_OK), 0);
  EXPECT_NE(::access(root_.path(std::string("run/vantor/mach/") + kOther).c_str(), F_OK), 0);
}

TEST_F(JobHostDemand, AnotherDefinitionChangesTheServicesThatStartIt) {
  ASSERT_TRUE(submit(demandedJob()));
  ASSERT_TRUE(submit(demandedJob({{"MachServices", Dictionary{{kOther, true}, {"c", true}}}})));
  EXPECT_NE(::access(root_.path(std::string("run/vantor/mach/") + kService).c_str(), F_OK), 0);
  EXPECT_EQ(starts(), 0u);
  const UniqueFd client = connect("c");
  EXPECT_EQ(starts(), 1u);
}

TEST_F(JobHostDemand, AServiceOfAnotherJobIsRefusedAndNoneIsBound) {
  ASSERT_TRUE(submit(demandedJob()));
  const auto outcome = submit(demandedJob(
      {{"Label", "com.example.b"}, {"MachServices", Dictionary{{"c", true}, {kOther, true}}}}));
  ASSERT_FALSE(outcome);
  EXPECT_THAT(outcome.error().localizedDescription,
              HasSubstr("the service \"com.example.other\" is that of job \"com.example.a\""));
  EXPECT_NE(::access(root_.path("run/vantor/mach/c").c_str(), F_OK), 0);
}

TEST_F(JobHostDemand, ASocketIsTakenOverUnderTheNumberOfItsStart) {
  ASSERT_TRUE(submit(demandedJob({{"KeepAlive", true}})));
  ASSERT_TRUE(
      submit(demandedJob({{"KeepAlive", true}, {"MachServices", Dictionary{{kOther, true}}}})));
  restartHost();
  EXPECT_EQ(sink_.count("stays with its process"), 0);
  const UniqueFd client = connect(kOther);
  acceptInProcess(1);
}

TEST_F(JobHostDemand, ASocketThatStaysWithItsProcessIsReported) {
  ASSERT_TRUE(submit(demandedJob({{"KeepAlive", true}})));
  ASSERT_EQ(::unlink(root_.path(std::string("run/vantor/mach/") + kOther).c_str()), 0);
  restartHost();
  EXPECT_EQ(sink_.count("stays with its process"), 1);
  EXPECT_EQ(sink_.count("job \"com.example.a\": the socket of \"com.example.other\" stays"), 1);
}

}  // namespace
}  // namespace jobhost
