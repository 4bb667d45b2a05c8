// The daemon's exact calls of the platform while it starts.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/StartUp_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::Pair;

// Forwards everything, and notes the arguments that a bus does not carry.
class RecordingCenter final : public DistributedNotificationCenter {
 public:
  explicit RecordingCenter(std::unique_ptr<DistributedNotificationCenter> center)
      : center_(std::move(center)) {}

  std::unique_ptr<Observation> addObserver(std::optional<std::string> name,
                                           std::optional<std::string> object, Handler handler,
                                           NSNotificationSuspensionBehavior behavior) override {
    EXPECT_FALSE(object);
    behaviors.emplace(name.value_or("any"), behavior);
    if (onObserve) onObserve(name.value_or("any"));
    return center_->addObserver(std::move(name), std::move(object), std::move(handler), behavior);
  }
  bool isAwaitingConfirmation() const override { return isAwaitingConfirmation_; }
  std::unique_ptr<Observation> observeReturn(std::function<void()> handler) override {
    ++returnsObserved;
    onReturn = handler;
    return center_->observeReturn(std::move(handler));
  }
  void postNotificationName(std::string_view name, std::optional<std::string> object,
                            Value userInfo, NSNotificationPosting posting) override {
    postings.emplace_back(name, posting);
    if (onPost) onPost();
    center_->postNotificationName(name, std::move(object), std::move(userInfo), posting);
  }

  std::multimap<std::string, NSNotificationSuspensionBehavior> behaviors;
  std::vector<std::pair<std::string, NSNotificationPosting>> postings;
  std::function<void()> onPost;
  std::function<void(const std::string& name)> onObserve;
  int returnsObserved = 0;
  std::function<void()> onReturn;
  bool isAwaitingConfirmation_ = false;

 private:
  std::unique_ptr<DistributedNotificationCenter> center_;
};

class StartUpCallsTest : public StartUpFixture {
 protected:
  StartUpCallsTest() {
    auto recording = std::make_unique<RecordingCenter>(std::move(center_));
    recording_ = recording.get();
    center_ = std::move(recording);
  }

  RecordingCenter* recording_;
};

TEST_F(StartUpCallsTest, AnnouncementsGoToAllSessions) {
  start();
  jobs_.setCallerAllowed(false);
  start();
  EXPECT_THAT(recording_->postings,
              ElementsAre(Pair(kDidStart, NSNotificationPosting::kPostToAllSessions),
                          Pair(kDidStartError, NSNotificationPosting::kPostToAllSessions)));
}

TEST_F(StartUpCallsTest, OnlyTheConfigurationServersNoticesAreImmediate) {
  install(catalogue({{kPrimary, entry("configd")},
                     {kAgent, entry("agent", {{"Notification", "com.example.up"}})}}));
  start();
  using enum NSNotificationSuspensionBehavior;
  EXPECT_THAT(recording_->behaviors,
              testing::IsSupersetOf(
                  {Pair("com.example.up", kCoalesce),
                   Pair("com.vantor.notification.configd.didstart", kDeliverImmediately),
                   Pair("com.vantor.notification.configd.willshutdown", kDeliverImmediately),
                   Pair("KLXGlobalSettingsDidChangeNotification", kDeliverImmediately)}));
}

TEST_F(StartUpCallsTest, TheStartIsAnnouncedLast) {
  int announcements = 0;
  recording_->onPost = [&] {
    ++announcements;
    EXPECT_TRUE(manager().installerConnection());
    EXPECT_TRUE(manager().userInterfaceConnection());
    EXPECT_TRUE(manager().deamonConnection());
    EXPECT_TRUE(manager().xpcListener());
    EXPECT_TRUE(manager().watchDog());
    EXPECT_FALSE(manager().monitoredProcessesInfo().empty());
  };
  start();
  EXPECT_EQ(announcements, 1);
}

// Each step sees what the steps before it have made, and not what the later ones make.
TEST_F(StartUpCallsTest, TheStepsComeInTheirOrder) {
  installProduct(kHostedManagedGuid);  // It keeps a health record.
  std::vector<std::string> observed;
  recording_->onObserve = [&](const std::string& name) {
    if (observed.size() < 3) {
      EXPECT_EQ(manager().operatingMode(), kNormal) << name;
      EXPECT_FALSE(manager().monitoredProcessesInfo().empty()) << name;
      EXPECT_FALSE(manager().watchDog()) << name;
    }
    observed.push_back(name);
  };
  std::vector<std::string> registered;
  onName_ = [&](std::string_view name) {
    if (!name.starts_with("com.vantor.servicemanager.") && !name.ends_with(".auth")) return;
    if (name.ends_with("operator.server")) return;
    EXPECT_TRUE(manager().watchDog()) << name;
    EXPECT_EQ(manager().operatingMode(), kWaiting) << name;  // The first evaluation has begun.
    EXPECT_FALSE(manager().xpcListener()) << name;
    registered.emplace_back(name);
  };
  std::vector<std::string> reportsBefore;
  recording_->onPost = [&] { reportsBefore = reports_; };
  start();
  ASSERT_GE(observed.size(), 3u);
  observed.resize(3);
  EXPECT_THAT(observed, ElementsAre("com.vantor.notification.configd.didstart",
                                    "com.vantor.notification.configd.willshutdown",
                                    "KLXGlobalSettingsDidChangeNotification"));
  EXPECT_THAT(registered, ElementsAre("com.vantor.servicemanager.installer.server",
                                      "com.vantor.servicemanager.userinterface.server",
                                      "com.vantor.common.servicemanager.auth"));
  EXPECT_THAT(reportsBefore, testing::Not(testing::Contains("ready")));
  EXPECT_THAT(reports_, testing::Contains("ready"));
}

TEST_F(StartUpCallsTest, TheOwnerIsLoggedBeforeTheRightIsRequested) {
  jobs_.setCallerAllowed(false);
  start();
  EXPECT_THAT(takeLog(),
              ElementsAre("7 real UID: 501 | effective UID: 0", "7 real GID: 20 | effective GID: 0",
                          "3 Copy Rights Unsuccessful: -60005"));
}

TEST_F(StartUpCallsTest, ARequestForARegistrationGoesToAllSessions) {
  system_.setRelease("15.0.0", {10, 11, 0});
  start();
  recording_->postings.clear();
  ASSERT_TRUE(manager().xpcHandler());
  manager().xpcHandler()->xpcListenerEndpoint(systemProfileData(system_), "missing",
                                              [](const auto& /*endpoint*/) {});
  loop_.runReady();
  EXPECT_THAT(recording_->postings, ElementsAre(Pair(kEndpointRequestNotification,
                                                     NSNotificationPosting::kPostToAllSessions)));
}

TEST_F(StartUpCallsTest, TheRightIsRequestedBeforeItsUse) {
  start();
  EXPECT_THAT(authorization_.created, ElementsAre(kAuthorizationFlagDefaults));
  ASSERT_EQ(authorization_.asked.size(), 1u);
  EXPECT_THAT(authorization_.asked[0].rights,
              ElementsAre("com.apple.ServiceManagement.daemons.modify"));
  EXPECT_EQ(authorization_.asked[0].flags, 18u);
}

TEST_F(StartUpCallsTest, TheEndClosesItsLog) {
  system_.setRelease("15.0.0", {10, 7, 0});  // The objects of endpoints log there, too.
  start();
  const std::uint32_t thread = mach_thread_self();
  EXPECT_EQ(get_queue(thread)->label(), "com.vantor.logger2.workqueue." + std::to_string(thread));
  manager().backgroundServiceWillTerminate({});
  EXPECT_EQ(get_queue(thread)->label(), "com.vantor.logger2.default.process");
}

// Each failure would be enough by itself.
TEST_F(StartUpCallsTest, OnlyTheFirstFailureIsAnnounced) {
  const auto error = [&] {
    announcements_.clear();
    start();
    EXPECT_EQ(announcements_.size(), 1u);
    return announcements_.empty() ? Value() : announcements_.front().userInfo["Error"];
  };
  installProduct("no product's");
  EXPECT_EQ(error(), Value("Unkown product type"));
  files_.remove(kProductFile);
  EXPECT_EQ(error(), Value("Malformed Configuration"));
  EXPECT_EQ(announcements_.front().userInfo["Description"],
            Value("Unable to resolve product information"));
  files_.remove(kCatalogueFile);
  EXPECT_EQ(error(), Value("Malformed Configuration"));
  EXPECT_EQ(announcements_.front().userInfo["Description"],
            Value("Unable to resolve primary service information"));
  signatures_.addRefused("/Daemon.bundle", SecStaticCode::Kind::kBundle,
                         {errSecCSBadResource, "changed"});
  EXPECT_EQ(error(), Value("Internal inconsistency"));
  jobs_.setCallerAllowed(false);
  EXPECT_EQ(error(), Value("Authorization failure"));
}

TEST_F(StartUpCallsTest, NothingIsAskedBeforeTheBusConfirms) {
  startConfigurationServer();
  recording_->isAwaitingConfirmation_ = true;
  start();
  EXPECT_EQ(configurationServer_.questions, 0);
  EXPECT_THAT(recording_->postings, testing::IsEmpty());
  recording_->onReturn();
  loop_.runReady();
  EXPECT_EQ(configurationServer_.questions, 1);
  EXPECT_THAT(announcements_, testing::SizeIs(1));
  EXPECT_EQ(countInLog("Notifications may have been missed"), 0u);
  recording_->onReturn();
  EXPECT_EQ(countInLog("Notifications may have been missed"), 1u);
}

TEST_F(StartUpCallsTest, AnAnnouncementBeforeTheBusConfirmsStartsNothing) {
  startConfigurationServer();
  recording_->isAwaitingConfirmation_ = true;
  start();
  post("com.vantor.notification.configd.didstart");
  loop_.runReady();
  EXPECT_EQ(configurationServer_.questions, 0);
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 0u);
  recording_->onReturn();
  loop_.runReady();
  EXPECT_EQ(configurationServer_.questions, 1);
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
}

TEST_F(StartUpCallsTest, TheJobHostsReturnBeforeTheBusConfirmsStartsNothing) {
  recording_->isAwaitingConfirmation_ = true;
  start();
  jobHostReturned_();
  loop_.runReady();
  EXPECT_EQ(configurationServer_.questions, 0);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 0u);
  EXPECT_THAT(jobs_.labels(), testing::IsEmpty());
  recording_->onReturn();
  loop_.runReady();
  EXPECT_TRUE(isRunning(kPrimary));
}

TEST_F(StartUpCallsTest, AHungBusDelaysTheStartByTwoSeconds) {
  startConfigurationServer();
  recording_->isAwaitingConfirmation_ = true;
  start();
  loop_.advanceBy(std::chrono::milliseconds(1999));
  EXPECT_EQ(configurationServer_.questions, 0);
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  loop_.advanceBy(std::chrono::milliseconds(1));
  EXPECT_EQ(configurationServer_.questions, 1);
  EXPECT_THAT(announcements_, testing::SizeIs(1));
  recording_->onReturn();
  EXPECT_EQ(countInLog("Notifications may have been missed"), 1u);
  EXPECT_THAT(announcements_, testing::SizeIs(1));
}

TEST_F(StartUpCallsTest, TheMainThreadDoesNotWaitForTheJobHost) {
  jobs_.setReachable(false);
  const Instant before = loop_.now();
  manager().backgroundServiceDidFinishLaunching({});
  EXPECT_EQ(loop_.now(), before);
  EXPECT_THAT(authorization_.created, testing::IsEmpty());  // The worker will ask.
}

TEST_F(StartUpCallsTest, AnIdleDaemonObservesNoReturn) {
  files_.remove(kCatalogueFile);
  start();
  EXPECT_EQ(recording_->returnsObserved, 0);
  EXPECT_FALSE(jobHostReturned_);
}

}  // namespace
