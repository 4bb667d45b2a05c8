// Processes that another user may have started, beside the removal and the start of a job.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <pwd.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Value;

constexpr platform::UserId kStrangersUser = 65533;

class JobHostStrangers : public JobHostTest {};

TEST_F(JobHostStrangers, ARemovalWaitsForAnotherUsersMarkForALimitedTime) {
  for (const int timeOut : {0, 5}) {
    SCOPED_TRACE(timeOut);
    ASSERT_TRUE(submit(job("com.example.a", {{"ExitTimeOut", timeOut}})));
    const auto leader = processes_.started.back().process;
    const auto forged = processes_.forge("com.example.a", kStrangersUser, leader);
    processes_.obeysTermination = processes_.obeysKill = false;
    const Answer answer = removeLater("com.example.a");
    endLast();
    loop_.advanceBy(timeOut == 0 ? 19s : 5s);
    EXPECT_FALSE(*answer);
    loop_.advanceBy(3s);
    EXPECT_TRUE(*answer);
    EXPECT_TRUE(processes_.isAlive(forged));
    processes_.end(forged);
    loop_.runReady();
  }
}

TEST_F(JobHostStrangers, ARemovalOfAControlGroupIgnoresAnotherUsersMark) {
  processes_.hasControlGroups = true;
  for (const bool isRunning : {true, false}) {
    ASSERT_TRUE(submit(
        job("com.example.a", {{"ExitTimeOut", 0}, {"KeepAlive", isRunning}, {"RunAtLoad", true}})));
    const auto forged = processes_.forge("com.example.a", kStrangersUser);
    if (!isRunning) endLast();
    const Answer answer = removeLater("com.example.a");
    loop_.advanceBy(20ms);
    EXPECT_TRUE(*answer);
    EXPECT_TRUE(processes_.isAlive(forged));
    EXPECT_EQ(std::ranges::count(processes_.signals, forged, &FakeProcesses::Signalled::group), 0);
    loop_.advanceBy(1min);
  }
}

TEST_F(JobHostStrangers, ARemovalSignalsALimitedNumberOfStrangers) {
  ASSERT_TRUE(submit(job("com.example.a")));
  for (int i = 0; i < 300; ++i) processes_.forge("com.example.a", kStrangersUser, 101);
  const Answer answer = removeLater("com.example.a");
  EXPECT_EQ(processes_.signals.size(), 257u);  // one to the leader's group
  loop_.advanceBy(2s);
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostStrangers, ADaemonsFileTellsItsUserWithoutAStateFile) {
  const passwd* const nobody = ::getpwnam("nobody");
  if (!nobody) GTEST_SKIP() << "there is no user nobody";
  killHost();
  const std::string user = "<key>UserName</key><string>nobody</string>";
  root_.write("Library/LaunchDaemons/com.example.daemon.plist",
              daemonFile("com.example.daemon", kKeepAlive + user));
  const auto leader = processes_.forge("com.example.daemon", nobody->pw_uid);
  startHost();
  loop_.runReady();
  EXPECT_EQ(pid("com.example.daemon"), Value(std::int64_t{leader}));
  EXPECT_EQ(starts(), 0);
}

}  // namespace
}  // namespace jobhost
