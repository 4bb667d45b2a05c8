// The operating mode as a table: each mode, each event, with the configuration server up and down.

#include <algorithm>
#include <array>
#include <chrono>
#include <ostream>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;

enum Mode : std::int64_t {
  kInNormal = ORBOperatingModeNormal,
  kInInstaller = ORBOperatingModeInstaller,
  kInWaiting = ORBOperatingModeWaitingForPrimaryService,
};
enum class Event { kBegin, kEnd, kServerUp, kServerDown, kWatchdog, kBusReturn, kHostReturn };
enum class Server { kUp, kDown };
enum class Action { kNone, kEvaluate, kStartPrimary, kStopServices };

struct Transition {
  Mode from;
  Event event;
  Server server;  // when the event comes
  Mode to;
  Action action = Action::kNone;
};

constexpr std::array kTransitions{
    Transition{kInNormal, Event::kBegin, Server::kUp, kInInstaller, Action::kStopServices},
    Transition{kInNormal, Event::kBegin, Server::kDown, kInInstaller, Action::kStopServices},
    Transition{kInInstaller, Event::kBegin, Server::kUp, kInInstaller, Action::kStopServices},
    Transition{kInInstaller, Event::kBegin, Server::kDown, kInInstaller, Action::kStopServices},
    Transition{kInWaiting, Event::kBegin, Server::kUp, kInInstaller, Action::kStopServices},
    Transition{kInWaiting, Event::kBegin, Server::kDown, kInInstaller, Action::kStopServices},

    Transition{kInNormal, Event::kEnd, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInNormal, Event::kEnd, Server::kDown, kInWaiting, Action::kStartPrimary},
    Transition{kInInstaller, Event::kEnd, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInInstaller, Event::kEnd, Server::kDown, kInWaiting, Action::kStartPrimary},
    Transition{kInWaiting, Event::kEnd, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInWaiting, Event::kEnd, Server::kDown, kInWaiting, Action::kStartPrimary},

    // The server's notice; nothing follows if it is down again by then.
    Transition{kInNormal, Event::kServerUp, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInNormal, Event::kServerUp, Server::kDown, kInNormal},
    Transition{kInInstaller, Event::kServerUp, Server::kUp, kInInstaller},
    Transition{kInInstaller, Event::kServerUp, Server::kDown, kInInstaller},
    Transition{kInWaiting, Event::kServerUp, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInWaiting, Event::kServerUp, Server::kDown, kInWaiting},

    // The server's notice comes while it still answers or after that. It ends the installer's mode,
    // too.
    Transition{kInNormal, Event::kServerDown, Server::kUp, kInWaiting},
    Transition{kInNormal, Event::kServerDown, Server::kDown, kInWaiting},
    Transition{kInInstaller, Event::kServerDown, Server::kUp, kInWaiting},
    Transition{kInInstaller, Event::kServerDown, Server::kDown, kInWaiting},
    Transition{kInWaiting, Event::kServerDown, Server::kUp, kInWaiting},
    Transition{kInWaiting, Event::kServerDown, Server::kDown, kInWaiting},

    Transition{kInNormal, Event::kWatchdog, Server::kUp, kInNormal},
    Transition{kInNormal, Event::kWatchdog, Server::kDown, kInWaiting},
    Transition{kInInstaller, Event::kWatchdog, Server::kUp, kInInstaller},
    Transition{kInInstaller, Event::kWatchdog, Server::kDown, kInInstaller},
    Transition{kInWaiting, Event::kWatchdog, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInWaiting, Event::kWatchdog, Server::kDown, kInWaiting},

    // Any notice may have been lost.
    Transition{kInNormal, Event::kBusReturn, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInNormal, Event::kBusReturn, Server::kDown, kInWaiting},
    Transition{kInInstaller, Event::kBusReturn, Server::kUp, kInInstaller},
    Transition{kInInstaller, Event::kBusReturn, Server::kDown, kInInstaller},
    Transition{kInWaiting, Event::kBusReturn, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInWaiting, Event::kBusReturn, Server::kDown, kInWaiting},

    // Decisions since then may not have been carried out.
    Transition{kInNormal, Event::kHostReturn, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInNormal, Event::kHostReturn, Server::kDown, kInWaiting, Action::kStartPrimary},
    Transition{kInInstaller, Event::kHostReturn, Server::kUp, kInInstaller},
    Transition{kInInstaller, Event::kHostReturn, Server::kDown, kInInstaller},
    Transition{kInWaiting, Event::kHostReturn, Server::kUp, kInNormal, Action::kEvaluate},
    Transition{kInWaiting, Event::kHostReturn, Server::kDown, kInWaiting, Action::kStartPrimary},
};

std::string nameOf(Mode mode) {
  switch (mode) {
    case kInNormal:
      return "Normal";
    case kInInstaller:
      return "Installer";
    case kInWaiting:
      return "Waiting";
  }
  return "";
}

std::string nameOf(Event event) {
  switch (event) {
    case Event::kBegin:
      return "Begin";
    case Event::kEnd:
      return "End";
    case Event::kServerUp:
      return "ServerUp";
    case Event::kServerDown:
      return "ServerDown";
    case Event::kWatchdog:
      return "Watchdog";
    case Event::kBusReturn:
      return "BusReturn";
    case Event::kHostReturn:
      return "HostReturn";
  }
  return "";
}

void PrintTo(const Transition& row, std::ostream* out) {
  *out << nameOf(row.from) << ", " << nameOf(row.event);
}

const Transition& rowOf(std::int64_t mode, Event event, Server server) {
  return *std::ranges::find_if(kTransitions, [&](const Transition& row) {
    return row.from == mode && row.event == event && row.server == server;
  });
}

class TransitionFixture : public ServiceManagerFixture {
 protected:
  TransitionFixture() { use(catalogue()); }

  void set(Server server) {
    if (server == Server::kDown) {
      stopConfigurationServer();
    } else if (!configurationProgram_) {
      startConfigurationServer();
    }
    loop_.runReady();
  }

  // The installer's end takes effect in two steps of a tenth of a second.
  void happen(Event event) {
    switch (event) {
      case Event::kBegin:
        EXPECT_TRUE(shutDown({kAgent}));
        break;
      case Event::kEnd:
        EXPECT_TRUE(manager().evaluateServices());
        loop_.advanceBy(200ms);
        break;
      case Event::kServerUp:
        manager().handleGlobalSettingsServerDidStart({});
        loop_.runReady();
        break;
      case Event::kServerDown:
        manager().handleGlobalSettingsServerWillShutdown({});
        break;
      case Event::kWatchdog:
        manager().evaluateWaitingForPrimaryServiceOperatingMode();
        loop_.runReady();
        break;
      case Event::kBusReturn:
        manager().handleNotificationsReturn();
        loop_.runReady();
        break;
      case Event::kHostReturn:
        manager().handleJobHostReturn();
        loop_.runReady();
        break;
    }
  }

  std::size_t evaluations() { return countInLog("Evaluating the system configuration"); }
  void change() {
    manager().handleGlobalSettingsDidChange({"KLXGlobalSettingsDidChangeNotification", std::nullopt,
                                             Dictionary{{"KLXGlobalSettingsKeyModified", "k"}}});
  }
};

class TransitionTest : public TransitionFixture, public testing::WithParamInterface<Transition> {};

TEST_P(TransitionTest, HasItsModeAndItsAction) {
  const Transition& row = GetParam();
  set(row.server);
  enterMode(row.from);
  std::vector<std::string> running;
  if (row.action == Action::kStopServices) {  // the agent alone
    for (const char* label : {kAgent, kHelper}) manager().enforceRunningForService(label, nullptr);
    loop_.runReady();
    ASSERT_TRUE(isRunning(kAgent) && isRunning(kHelper));
    running = {kHelper};
  }
  happen(row.event);
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), row.to);
  // A stop is seen as an exit, which evaluates nothing in the installer's mode.
  const std::size_t exits = countInLog("Handling Process terminiation callback");
  EXPECT_EQ(evaluations() - exits, row.action == Action::kEvaluate ? 1u : 0u);
  if (row.action == Action::kEvaluate) running = {kAgent, kPrimary, kHelper};
  if (row.action == Action::kStartPrimary) running = {kPrimary};
  EXPECT_EQ(jobs_.labels(), running);
}

INSTANTIATE_TEST_SUITE_P(Table, TransitionTest, testing::ValuesIn(kTransitions),
                         [](const auto& row) {
                           return nameOf(row.param.from) + "_" + nameOf(row.param.event) + "_" +
                                  (row.param.server == Server::kUp ? "Up" : "Down");
                         });

TEST_F(TransitionFixture, TheTableHasEachModeEventAndServer) {
  EXPECT_EQ(kTransitions.size(), 3u * 7 * 2);
  for (const Mode mode : {kInNormal, kInInstaller, kInWaiting}) {
    for (const Event event : {Event::kBegin, Event::kEnd, Event::kServerUp, Event::kServerDown,
                              Event::kWatchdog, Event::kBusReturn, Event::kHostReturn}) {
      for (const Server server : {Server::kUp, Server::kDown}) {
        EXPECT_EQ(std::ranges::count_if(kTransitions,
                                        [&](const Transition& row) {
                                          return row.from == mode && row.event == event &&
                                                 row.server == server;
                                        }),
                  1);
      }
    }
  }
}

// The installer's begin and end, with the server going down and coming up in between, in every
// order: each step is as in the table, and in the end everything runs.
TEST_F(TransitionFixture, InEveryOrderOfTheInstallersAndTheServersEvents) {
  std::array events{Event::kBegin, Event::kEnd, Event::kServerUp, Event::kServerDown};
  std::ranges::sort(events);
  int orders = 0;
  do {
    ++orders;
    std::string path = "Normal";
    Server server = Server::kUp;
    set(server);
    enterMode(kInNormal);
    evaluate();
    for (const Event event : events) {
      if (event == Event::kServerUp) server = Server::kUp;
      if (event == Event::kServerDown) server = Server::kDown;
      set(server);
      const Transition& row = rowOf(manager().operatingMode(), event, server);
      takeLog();
      happen(event);
      loop_.runReady();
      path += " " + nameOf(event);
      // The stop at the installer's begin is seen as an exit, which evaluates nothing in that mode.
      const std::size_t exits = countInLog("Handling Process terminiation callback");
      EXPECT_EQ(evaluations() - exits, row.action == Action::kEvaluate ? 1u : 0u) << path;
      EXPECT_EQ(manager().operatingMode(), row.to) << path;
      if (event == Event::kBegin) {
        EXPECT_FALSE(isRunning(kAgent)) << path;
      }
    }
    set(Server::kUp);
    happen(Event::kServerUp);
    happen(Event::kEnd);
    EXPECT_EQ(manager().operatingMode(), kInNormal) << path;
    EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent, kPrimary, kHelper)) << path;
    EXPECT_TRUE(isRunning(kAgent)) << path;
  } while (std::ranges::next_permutation(events).found);
  EXPECT_EQ(orders, 24);
}

TEST_F(TransitionFixture, TheInstallersEndOverridesEarlierEvents) {
  set(Server::kUp);
  for (const Event event : {Event::kBegin, Event::kServerDown}) {
    takeLog();
    manager().evaluateServices();
    happen(event);
    EXPECT_NE(manager().operatingMode(), kInNormal);
    loop_.advanceBy(100ms);
    EXPECT_EQ(manager().operatingMode(), kInNormal);
    loop_.advanceBy(100ms);
    EXPECT_TRUE(isRunning(kAgent));
  }
}

TEST_F(TransitionFixture, EventsBeforeTheInstallersEvaluationPreventIt) {
  set(Server::kUp);
  for (const Event event : {Event::kBegin, Event::kServerDown}) {
    shutDown({kAgent});
    manager().evaluateServices();
    loop_.advanceBy(150ms);
    EXPECT_EQ(manager().operatingMode(), kInNormal);
    happen(event);
    loop_.advanceBy(1s);
    EXPECT_NE(manager().operatingMode(), kInNormal);
    EXPECT_FALSE(isRunning(kAgent));
  }
}

// Changes of the settings in another mode than the normal one.

class ChangeTest : public TransitionFixture, public testing::WithParamInterface<Mode> {
 protected:
  // The event that makes the daemon evaluate in normal mode again.
  void comeBack() { happen(GetParam() == kInInstaller ? Event::kEnd : Event::kServerUp); }
};

TEST_P(ChangeTest, EvaluatesNothingThereAndBlocksFurtherChanges) {
  set(Server::kUp);
  enterMode(GetParam());
  change();
  loop_.advanceBy(2s);
  EXPECT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  EXPECT_EQ(evaluations(), 1u);  // It logs its line and does nothing else.
  EXPECT_TRUE(jobs_.labels().empty());
  takeLog();
  for (int i = 0; i < 3; ++i) {
    change();
    loop_.advanceBy(10s);
  }
  EXPECT_EQ(countInLog("Notification received for global settings change: k"), 3u);
  EXPECT_EQ(countInLog("Will evaluate the system configuration"), 0u);
  EXPECT_EQ(evaluations(), 0u);

  // Back in normal mode, but not evaluated yet: the same.
  manager().evaluateServices();
  loop_.advanceBy(150ms);
  ASSERT_EQ(manager().operatingMode(), kInNormal);
  change();
  EXPECT_EQ(countInLog("Will evaluate the system configuration"), 0u);
  EXPECT_EQ(evaluations(), 0u);

  enterMode(GetParam());
  loop_.advanceBy(10s);
  EXPECT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  takeLog();
  comeBack();
  EXPECT_EQ(evaluations(), 1u);
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
  takeLog();
  change();
  loop_.advanceBy(2s);
  EXPECT_EQ(countInLog("Will evaluate the system configuration in 2.000000 seconds"), 1u);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_P(ChangeTest, FromNormalModeFiresWithoutEffectThere) {
  set(Server::kUp);
  enterMode(kInNormal);
  change();
  loop_.advanceBy(1s);
  enterMode(GetParam());
  loop_.advanceBy(1s);
  EXPECT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  EXPECT_TRUE(jobs_.labels().empty());
  comeBack();
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
}

TEST_P(ChangeTest, IsCoveredByTheEvaluationAtTheModesEnd) {
  set(Server::kUp);
  enterMode(GetParam());
  change();
  loop_.advanceBy(1s);
  comeBack();
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
  loop_.advanceBy(1min);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_P(ChangeTest, TenAfterwardsAreOneEvaluation) {
  set(Server::kUp);
  enterMode(GetParam());
  change();
  loop_.advanceBy(2s);
  comeBack();
  takeLog();
  for (int i = 0; i < 10; ++i) {
    change();
    loop_.advanceBy(150ms);
  }
  loop_.advanceBy(1min);
  EXPECT_EQ(countInLog("Notification received for global settings change: k"), 10u);
  EXPECT_EQ(evaluations(), 1u);
}

INSTANTIATE_TEST_SUITE_P(InMode, ChangeTest, testing::Values(kInInstaller, kInWaiting),
                         [](const auto& mode) { return nameOf(mode.param); });

}  // namespace
