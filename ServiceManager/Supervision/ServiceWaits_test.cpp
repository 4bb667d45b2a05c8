// Work on a service that must wait, and requests that come meanwhile.

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Supervision/ServiceEnforcement.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class ServiceWaitsTest : public SupervisionFixture {
 protected:
  ServiceWaitsTest() { useHealth(); }

  static Dictionary throttled(int seconds, int exitTimeOut = 20) {
    return {{"Products", Array{kProduct}},
            {"JobSpec", Dictionary{{"Program", "agent"},
                                   {"ThrottleInterval", seconds},
                                   {"ExitTimeOut", exitTimeOut}}}};
  }
  // The agent's process has ended, and its throttle delays the next one by so many seconds.
  void endAgent(int seconds) {
    use(catalogue({{kAgent, throttled(seconds)}, {kHelper, entry("helper")}}));
    run(kAgent);
    jobs_.endProcess(kAgent);
    loop_.runReady();
    takeLog();
    takeReports();
  }
  void run(const char* label) {
    enforcement_.enforceRunningForService(label, [this, label] { completed_.emplace_back(label); });
    loop_.runReady();
  }
  void stop(const char* label) {
    enforcement_.enforceShutdownForService(label, [this, label](bool hasStopped) {
      stopped_.push_back(label + std::string(hasStopped ? " stopped" : " not stopped"));
    });
    loop_.runReady();
  }
  ServiceActivity agent() const { return enforcement_.activityOf(kAgent); }

  std::vector<std::string> completed_;
  std::vector<std::string> stopped_;
};

TEST_F(ServiceWaitsTest, NothingIsHeldUpByAProcessThatIsAwaited) {
  endAgent(3600);
  const Instant before = loop_.now();
  run(kAgent);
  run(kHelper);
  EXPECT_EQ(loop_.now(), before);
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_EQ(agent(), ServiceActivity::kAwaitsProcess);
  loop_.advanceBy(12s);
  EXPECT_EQ(agent(), ServiceActivity::kNothing);
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.helper", "unready com.example.agent"));
  EXPECT_EQ(unready_, 1);
}

TEST_F(ServiceWaitsTest, ASecondRequestJoinsTheFirst) {
  endAgent(5);
  run(kAgent);
  completed_.clear();
  const int copies = jobs_.copies();
  run(kAgent);
  run(kAgent);
  EXPECT_EQ(jobs_.copies(), copies);
  loop_.advanceBy(6s);
  EXPECT_THAT(completed_, ElementsAre(kAgent, kAgent, kAgent));
  EXPECT_EQ(watched_.size(), 2u);
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
}

// The operator's picture depends on it.
TEST_F(ServiceWaitsTest, EachChangeOfAnActivityIsReported) {
  endAgent(5);
  activities_ = 0;
  run(kAgent);
  EXPECT_EQ(agent(), ServiceActivity::kAwaitsProcess);
  const int before = activities_;
  EXPECT_GT(before, 0);
  loop_.advanceBy(3s);  // There is no process yet.
  EXPECT_EQ(activities_, before);
  loop_.advanceBy(3s);
  EXPECT_EQ(agent(), ServiceActivity::kNothing);
  EXPECT_GT(activities_, before);
}

// The looks would come after four and six seconds.
TEST_F(ServiceWaitsTest, AStartThatTheHostReportsIsLookedAtAtOnce) {
  endAgent(5);
  const auto starts = jobs_.observeStarts([this](std::string_view label, Jobs::Start) {
    enforcement_.jobHasStarted(std::string(label));
  });
  run(kAgent);
  loop_.advanceBy(5s);
  EXPECT_EQ(agent(), ServiceActivity::kNothing);
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
}

TEST_F(ServiceWaitsTest, AStopEndsTheSearchForTheProcess) {
  endAgent(3600);
  completed_.clear();
  run(kAgent);
  stop(kAgent);
  EXPECT_THAT(stopped_, ElementsAre("com.example.agent stopped"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  loop_.advanceBy(1min);
  EXPECT_THAT(completed_, IsEmpty());  // The stop has overtaken it.
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent"));
}

TEST_F(ServiceWaitsTest, ARemovalHoldsUpNobody) {
  run(kAgent);
  run(kHelper);
  jobs_.ignoreTermination(kAgent);
  stop(kAgent);
  EXPECT_EQ(agent(), ServiceActivity::kIsRemoved);
  stop(kHelper);
  EXPECT_FALSE(isRunning(kHelper));
  EXPECT_THAT(stopped_, ElementsAre("com.example.helper stopped"));
  loop_.advanceBy(20s);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_EQ(agent(), ServiceActivity::kNothing);
}

TEST_F(ServiceWaitsTest, StopsDuringARemovalGetItsAnswer) {
  run(kAgent);
  jobs_.ignoreTermination(kAgent);
  for (int i = 0; i < 3; ++i) stop(kAgent);
  EXPECT_THAT(stopped_, IsEmpty());
  loop_.advanceBy(20s);
  EXPECT_EQ(stopped_, std::vector<std::string>(3, "com.example.agent stopped"));
  EXPECT_EQ(countInLog("Did enforce shutdown for service: com.example.agent"), 1u);
}

TEST_F(ServiceWaitsTest, AServiceThatIsWantedDuringItsRemovalRunsAgain) {
  run(kAgent);
  const int first = process(kAgent);
  jobs_.ignoreTermination(kAgent);
  stop(kAgent);
  completed_.clear();
  run(kAgent);
  EXPECT_EQ(process(kAgent), first);
  EXPECT_EQ(agent(), ServiceActivity::kIsRemovedBeforeItRuns);
  loop_.advanceBy(20s);
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_NE(process(kAgent), first);
  EXPECT_THAT(stopped_, ElementsAre("com.example.agent stopped"));
  EXPECT_THAT(completed_, ElementsAre(kAgent));
  EXPECT_TRUE(records_.isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(ServiceWaitsTest, TheReturnOfTheHostLooksForAwaitedProcesses) {
  endAgent(1);
  run(kAgent);
  loop_.advanceBy(1500ms);  // The process is there, and the next look is due in half a second.
  EXPECT_EQ(agent(), ServiceActivity::kAwaitsProcess);
  enforcement_.jobHostHasReturned();
  loop_.runReady();
  EXPECT_EQ(agent(), ServiceActivity::kNothing);
}

TEST_F(ServiceWaitsTest, AJobLostDuringTheSearchIsSubmittedForASecondRequest) {
  endAgent(5);
  run(kAgent);
  EXPECT_TRUE(jobs_.SMJobRemove(kSMDomainSystemLaunchd, kAgent, nullptr, true));
  run(kAgent);
  loop_.advanceBy(12s);
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ServiceWaitsTest, AHungJobHostHoldsUpNobody) {
  jobs_.setHung(true);
  const Instant before = loop_.now();
  run(kAgent);
  run(kHelper);
  EXPECT_EQ(loop_.now(), before);
  EXPECT_EQ(agent(), ServiceActivity::kAsksForItsJob);
  loop_.advanceBy(1min);
  EXPECT_FALSE(enforcement_.isWorking());
  EXPECT_THAT(takeReports(),
              ElementsAre("unready com.example.agent", "unready com.example.helper"));
  jobs_.setHung(false);
  run(kAgent);
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
}

TEST_F(ServiceWaitsTest, SubmissionsOfTwoServicesAreUnderWayTogether) {
  enforcement_.enforceRunningForService(kAgent, nullptr);
  enforcement_.enforceRunningForService(kHelper, nullptr);
  jobs_.setOnSubmitted([this] {
    EXPECT_EQ(agent(), ServiceActivity::kIsSubmitted);
    jobs_.setHung(true);
  });
  loop_.runReady();
  EXPECT_EQ(enforcement_.activityOf(kHelper), ServiceActivity::kIsSubmitted);
  jobs_.setHung(false);
  loop_.runReady();
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent", "start com.example.helper"));
}

TEST_F(ServiceWaitsTest, AStopDuringASubmissionRemovesTheJob) {
  jobs_.setOnSubmitted([this] {
    enforcement_.enforceShutdownForService(kAgent, [this](bool hasStopped) {
      stopped_.emplace_back(hasStopped ? "stopped" : "not stopped");
    });
  });
  run(kAgent);
  EXPECT_THAT(stopped_, ElementsAre("stopped"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_THAT(completed_, IsEmpty());
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent"));
}

TEST_F(ServiceWaitsTest, AStopThatIsOvertakenByAStartDropsNoBlock) {
  endAgent(5);
  completed_.clear();
  enforcement_.enforceRunningForService(kAgent, [this] { completed_.emplace_back("first"); });
  enforcement_.enforceShutdownForService(kAgent, {});
  enforcement_.enforceRunningForService(kAgent, [this] { completed_.emplace_back("second"); });
  loop_.advanceBy(12s);
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_THAT(completed_, ElementsAre("first", "second"));
}

// Whatever comes in whatever order, everything ends, every stop is answered once, and the last
// request has its way. The daemon evaluates a service again that was stopped for an extension.
TEST_F(ServiceWaitsTest, TheLastRequestHasItsWayInEveryOrder) {
  enum Event {
    kRun,
    kStop,
    kTurn,
    kWait,
    kLongWait,
    kHarmlessEvents,  // all before this
    kProcessEnds = kHarmlessEvents,
    kStopForExtension,
    kProgramIsDamaged,
    kProgramIsSound,
    kHostGoes,
    kHostHangs,
    kHostReturns,
    kEvents
  };
  std::mt19937 random(1);  // The same orders in each run.
  for (int order = 0; order < 2000; ++order) {
    use(catalogue({{kAgent, throttled(order % 3 * 4)}, {kHelper, entry("helper")}}));
    std::string events;
    bool isWanted = false;
    std::size_t stops = 0;
    stopped_.clear();
    const bool isHarmless = order % 2 == 1;
    for (int i = 0; i < 12; ++i) {
      const auto event = static_cast<Event>(random() % (isHarmless ? kHarmlessEvents : kEvents));
      events += std::to_string(event) + " ";
      switch (event) {
        case kRun:
          isWanted = true;
          enforcement_.enforceRunningForService(kAgent, nullptr);
          break;
        case kStop:
          isWanted = false;
          ++stops;
          enforcement_.enforceShutdownForService(
              kAgent, [this](bool hasStopped) { stopped_.push_back(hasStopped ? "yes" : "no"); });
          break;
        case kStopForExtension:
          ++stops;
          enforcement_.stopForExtension(
              kAgent, [this](bool hasStopped) { stopped_.push_back(hasStopped ? "yes" : "no"); });
          break;
        case kProcessEnds:
          if (isRunning(kAgent)) jobs_.endProcess(kAgent);
          break;
        case kProgramIsDamaged:
          damageProgram("agent");
          break;
        case kProgramIsSound:
          addProgram("agent");
          break;
        case kTurn:
          loop_.runReady();
          break;
        case kWait:
          loop_.advanceBy(700ms);
          break;
        case kLongWait:
          loop_.advanceBy(5s);
          break;
        case kHostGoes:
          jobs_.setReachable(false);
          break;
        case kHostHangs:
          jobs_.setHung(true);
          break;
        default:
          jobs_.setReachable(true);
          jobs_.setHung(false);
          enforcement_.jobHostHasReturned();
          break;
      }
    }
    jobs_.setReachable(true);
    jobs_.setHung(false);
    addProgram("agent");
    loop_.advanceBy(1min);
    ASSERT_EQ(agent(), ServiceActivity::kNothing) << events;
    ASSERT_EQ(stopped_.size(), stops) << events;
    if (isHarmless) {
      ASSERT_EQ(isRunning(kAgent), isWanted) << events;
      ASSERT_EQ(records_.isServiceBeingTrackedForRespawn(kAgent), isWanted) << events;
    }
    // The daemon repeats requests that failed without the host.
    if (isWanted) {
      enforcement_.enforceRunningForService(kAgent, nullptr);
    } else {
      enforcement_.enforceShutdownForService(kAgent, {});
    }
    loop_.advanceBy(1min);
    ASSERT_EQ(isRunning(kAgent), isWanted) << events;
    ASSERT_EQ(records_.isServiceBeingTrackedForRespawn(kAgent), isWanted) << events;
    enforcement_.enforceShutdownForService(kAgent, {});
    loop_.advanceBy(1min);
    ASSERT_EQ(exitWatcher_.watchCount(), 0u) << events;
  }
}

}  // namespace
