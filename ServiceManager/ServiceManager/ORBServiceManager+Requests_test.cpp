#include <chrono>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class RequestsTest : public ServiceManagerFixture {
 protected:
  RequestsTest() {
    use(catalogue());
    useHealth();
  }

  // Whether the block was called.
  bool enforceRunning(ORBServiceManager::Label label) {
    bool isCalled = false;
    manager().enforceRunningForService(label, [&] { isCalled = true; });
    loop_.runReady();
    return isCalled;
  }
  void run(const char* label) {
    manager().enforceRunningForService(label, nullptr);
    loop_.runReady();
    takeLog();
    takeReports();
  }
  Value pidOf(ORBServiceManager::Label label) {
    return answerTo<Value>([&](auto answer) { manager().pidForService(label, std::move(answer)); });
  }
  Value lastExitStatusOf(ORBServiceManager::Label label) {
    return answerTo<Value>(
        [&](auto answer) { manager().lastExitStatusForService(label, std::move(answer)); });
  }
};

TEST_F(RequestsTest, NilIsLeftAlone) {
  EXPECT_FALSE(enforceRunning(std::nullopt));
  EXPECT_TRUE(stop(std::nullopt));
  EXPECT_THAT(takeReports(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(RequestsTest, WithoutAHealthRecordAnInstallerIsServed) {
  hasHealthRecord_ = false;
  restart();
  EXPECT_TRUE(shutDown({kAgent}));
  EXPECT_TRUE(manager().evaluateServices());
  loop_.runReady();
}

TEST_F(RequestsTest, TheExitOfAStoppedServiceIsStillSeen) {
  run(kAgent);
  const auto client = registerClient();
  enterMode(kInstaller);
  stop(kAgent);
  loop_.runReady();
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 0)));
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "forced stop com.example.agent"));
}

TEST_F(RequestsTest, AStopWithoutAnAnswerKeepsTheMark) {
  run(kAgent);
  jobs_.setReachable(false);
  manager().stopServices({kAgent});
  loop_.advanceBy(10s);
  EXPECT_TRUE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  EXPECT_THAT(takeLog(), Contains(testing::HasSubstr("3 Unable to unload com.example.agent")));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent));
}

// The user interface's requests.

TEST_F(RequestsTest, TheServicesAreTheCatalogues) {
  EXPECT_EQ(manager().services(), catalogue()["Services"]);
}

TEST_F(RequestsTest, ARunningProcessIsReported) {
  run(kAgent);
  EXPECT_EQ(pidOf(kAgent), Value(process(kAgent)));
  EXPECT_TRUE(lastExitStatusOf(kAgent).isNil());
}

TEST_F(RequestsTest, AnUnknownLabelHasNoProcessOrStatus) {
  EXPECT_TRUE(pidOf("com.example.unknown").isNil());
  EXPECT_TRUE(lastExitStatusOf("com.example.unknown").isNil());
}

// Labels of jobs that the catalogue does not have.

class ForeignJobTest : public RequestsTest {
 protected:
  static constexpr char kBus[] = "com.vantor.notificationbus";

  ForeignJobTest() {
    EXPECT_TRUE(jobs_.SMJobSubmit(
        kSMDomainSystemLaunchd,
        Dictionary{{"Label", kBus}, {"Program", "/opt/app/agent"}, {"KeepAlive", true}}, nullptr));
    copies_ = jobs_.copies();
  }
  ~ForeignJobTest() override {
    EXPECT_TRUE(jobs_.process(kBus));
    EXPECT_EQ(jobs_.copies(), copies_) << "The job host was asked.";
    EXPECT_THAT(takeReports(), IsEmpty());
  }

 private:
  int copies_ = 0;
};

TEST_F(ForeignJobTest, IsNotTouchedByTheUserInterface) {
  manager().stopServices({kBus});
  manager().startServices({kBus});
  loop_.runReady();
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ForeignJobTest, IsNotTouchedByTheInstaller) {
  EXPECT_TRUE(shutDown({kBus}));
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ForeignJobTest, HasNoProcessOrStatus) {
  EXPECT_TRUE(pidOf(kBus).isNil());
  EXPECT_TRUE(lastExitStatusOf(kBus).isNil());
}

TEST_F(RequestsTest, NilHasNoProcessOrStatus) {
  EXPECT_TRUE(pidOf(std::nullopt).isNil());
  EXPECT_TRUE(lastExitStatusOf(std::nullopt).isNil());
}

TEST_F(RequestsTest, AnEndedJobHasItsLastExitStatus) {
  use(catalogue({{kPrimary, entry("configd")},
                 {kAgent, Dictionary{{"Products", entry("agent")["Products"]},
                                     {"JobSpec", Dictionary{{"Program", "agent"},
                                                            {"ThrottleInterval", 60}}}}}}));
  run(kAgent);
  jobs_.endProcess(kAgent, {ExitStatus::Kind::kExited, 3});
  EXPECT_TRUE(pidOf(kAgent).isNil());
  EXPECT_EQ(lastExitStatusOf(kAgent), Value(3 << 8));
}

// The installer's requests.

TEST_F(RequestsTest, TheInstallersBeginStopsAndReportsItsServices) {
  run(kAgent);
  run(kHelper);
  EXPECT_TRUE(shutDown({kAgent, kHelper}));
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "installer event com.example.agent",
                          "stop com.example.helper", "installer event com.example.helper",
                          "forced stop com.example.agent", "forced stop com.example.helper"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(RequestsTest, AFailedShutdownStopsAllOtherServices) {
  run(kAgent);
  run(kHelper);
  jobs_.refuseRemoval(kAgent, "not you");
  EXPECT_FALSE(shutDown({kAgent, kHelper}));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent));
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "installer event com.example.agent",
                          "stop com.example.helper", "installer event com.example.helper",
                          "forced stop com.example.helper"));
}

TEST_F(RequestsTest, AShutdownWithoutTheJobHostFails) {
  run(kAgent);
  jobs_.setReachable(false);
  EXPECT_FALSE(shutDown({kAgent}));
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "installer event com.example.agent"));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent));
}

TEST_F(RequestsTest, ARequestNamesEachServiceOnce) {
  run(kAgent);
  manager().stopServices({kAgent});
  loop_.advanceBy(1s);
  const auto linesOfOne = takeLog();
  manager().startServices({kAgent});
  loop_.advanceBy(1s);
  takeLog();
  manager().stopServices(Array(1000, Value(kAgent)));
  loop_.advanceBy(1s);
  EXPECT_EQ(takeLog().size(), linesOfOne.size());
}

TEST_F(RequestsTest, AnElementThatIsNoLabelIsIgnored) {
  run(kHelper);
  EXPECT_TRUE(shutDown({1, Array{}, kHelper, Value::nullMarker()}));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

// A service that has announced its start.

class StartNotificationTest : public RequestsTest {
 protected:
  StartNotificationTest() {
    use(catalogue({{kPrimary, entry("configd")},
                   {kAgent, entry("agent", {{"Notification", "up"}})},
                   {kHelper, entry("helper", {{"Notification", "up"}})}}));
  }
};

TEST_F(StartNotificationTest, TheFirstServiceOfThatNotificationIsEvaluated) {
  manager().handleServiceDidStartNotification({"up", std::nullopt, {}});
  EXPECT_EQ(countInLog("Evaluating service: com.example.agent"), 1u);
  EXPECT_EQ(countInLog("Evaluating service: com.example.helper"), 0u);
}

TEST_F(StartNotificationTest, AnUnknownNotificationIsIgnored) {
  manager().handleServiceDidStartNotification({"another", std::nullopt, {}});
  EXPECT_THAT(takeLog(), IsEmpty());
}

// The executable-information service asks on a queue of its own.

TEST_F(RequestsTest, TheLastUsersHomeIsAskedOnTheCallingThread) {
  settings("cmx")["ORBCmxLastLoggedInUser"] = "/home/user";
  EXPECT_EQ(manager().getLastLoggedInUserHomeDirectory(), Value("/home/user"));
  EXPECT_EQ(askedOnAnotherThread_, 1);
  EXPECT_THAT(manager().askedSources(), IsEmpty());
}

}  // namespace
