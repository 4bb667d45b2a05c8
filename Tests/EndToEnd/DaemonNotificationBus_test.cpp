// The notification bus ends, and announcements are lost meanwhile.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class DaemonNotificationBus : public DaemonFixture {
 protected:
  static constexpr char kEvaluatingService[] = "Evaluating service: com.vantor.test.0\n";

  // The daemon waits for the configuration server, which has announced its end.
  void makeDaemonWait() {
    const std::size_t before = root_.logCount("Primary service is shutting down");
    root_.center().postNotificationName("com.vantor.notification.configd.willshutdown",
                                        std::nullopt, {},
                                        NSNotificationPosting::kPostToAllSessions);
    root_.awaitLog("Primary service is shutting down", before + 1);
  }
};

TEST_F(DaemonNotificationBus, ItDiesWhileTheConfigurationServerRestarts) {
  constexpr char kReturn[] = "Notifications may have been missed\n";
  start(1);
  std::size_t ownReturns = 0;
  const auto returned = root_.center().observeReturn([&] {
    ++ownReturns;
    root_.changed();
  });
  for (int i = 0; i < 5 && !HasFailure(); ++i) {
    makeDaemonWait();
    const std::size_t returns = root_.logCount(kReturn);
    const std::size_t ownBefore = ownReturns;
    root_.kill(DaemonRoot::kBus, SIGKILL);
    root_.kill(DaemonRoot::kPrimary, SIGKILL);
    root_.awaitLog(kReturn, returns + 1);
    root_.await("the evaluation behind that",
                [&] { return root_.logHasBehind(kReturn, kEvaluatingService); });
    // Earlier posts reach nobody.
    root_.await("the test's own return", [&] { return ownReturns > ownBefore; });
  }
}

// A bus never reads its configuration again, and its clients' connections would stay.
TEST_F(DaemonNotificationBus, AnotherGroupIsServedByTheNextHostsBus) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can start programs as other users";
  constexpr char kOther[] = "daemon";  // a user, and its group
  const auto isOtherServed = [&] {
    ChildProgram client(
        {"/usr/bin/setpriv", std::string("--reuid=") + kOther, std::string("--regid=") + kOther,
         "--clear-groups", "/usr/bin/dbus-send",
         "--bus=unix:path=" + root_.folder().path("run/vantor/mach/") + DaemonRoot::kBus,
         "--print-reply", "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.AddMatch",
         "string:type='signal'"},
        {});
    return client.waitForExit() == ExitStatus{};
  };
  start(1);
  std::filesystem::permissions(root_.path(), std::filesystem::perms(0755));
  EXPECT_FALSE(isOtherServed());
  const std::string path = root_.folder().path("etc/vantor/platform.plist");
  std::string changed = contentOfFile(path);
  const std::string group = std::string("<string>") + DaemonRoot::kGroup + "</string>";
  ASSERT_NE(changed.find(group), changed.npos);
  changed.replace(changed.find(group), group.size(),
                  std::string("<string>") + kOther + "</string>");
  root_.folder().write("etc/vantor/platform.plist", changed);
  bool isBack = false;
  const auto returned = root_.center().observeReturn([&] {
    isBack = true;
    root_.changed();
  });
  root_.host().killHost();
  root_.host().startHost();
  root_.await("the bus of the other group", [&] { return isBack; });
  EXPECT_TRUE(isOtherServed());
  root_.awaitLog("because other users may use the bus now", 1);
}

TEST_F(DaemonNotificationBus, TheConfigurationServerRestartsWhileThereIsNone) {
  start(1);
  makeDaemonWait();
  const std::size_t evaluations = root_.logCount(kEvaluatingService);
  root_.remove(DaemonRoot::kBus);
  const ProcessId before = root_.processOf(DaemonRoot::kPrimary);
  root_.kill(DaemonRoot::kPrimary, SIGKILL);
  const auto look =
      root_.loop().startTimer(10ms, RunLoop::Repeat::kEvery, [this] { root_.changed(); });
  root_.await("the next configuration server", [&] {
    const ProcessId now = root_.processOf(DaemonRoot::kPrimary);
    return now > 0 && now != before;
  });
  EXPECT_EQ(root_.logCount(kEvaluatingService), evaluations);
  root_.startBus();
  root_.awaitLog(kEvaluatingService, evaluations + 1);
}

// The job host takes longer to answer than the bus waits for a log-in. The daemon's loop goes on
// meanwhile and logs in.
TEST_F(DaemonNotificationBus, AStartWithoutAnAnswerOfTheJobHostIsAnnounced) {
  std::string strictBus = contentOfFile(root_.folder().path("etc/vantor/notification-bus.conf"));
  const std::string limit = "<limit name=\"auth_timeout\">";
  const std::size_t at = strictBus.find(limit);
  ASSERT_NE(at, strictBus.npos);
  strictBus.replace(at + limit.size(), strictBus.find('<', at + 1) - at - limit.size(), "1000");
  root_.folder().write("etc/vantor/notification-bus.conf", strictBus);
  bool isBack = false;
  const auto returned = root_.center().observeReturn([&] {
    isBack = true;
    root_.changed();
  });
  root_.kill(DaemonRoot::kBus, SIGKILL);
  root_.await("the strict bus", [&] { return isBack; });

  // The daemon's program begins when the job host has stopped.
  const std::string gate = root_.folder().path("gate");
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  const std::string program = root_.folder().path("daemon");
  root_.folder().write(
      "daemon", "#!/bin/sh\nread line <" + gate + "\nexec '" + root_.daemonProgram() + "'\n");
  ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
  root_.setCatalogue(DaemonRoot::catalogue(1));
  root_.startDaemon(program);
  root_.host().stopHost();
  std::ofstream(gate) << "go\n";
  root_.awaitStart();
  root_.host().continueHost();
  EXPECT_EQ(root_.logCount("was not posted"), 0U);
  root_.awaitLog(kEvaluatingService);
  EXPECT_EQ(root_.logCount("Notifications may have been missed\n"), 0U);
}

}  // namespace
}  // namespace platform
