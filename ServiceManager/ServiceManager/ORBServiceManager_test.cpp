#include <chrono>

#include "Platform/Logging/LogMessageIds.h"
#include "ServiceManager/ServiceManager/StartUp_fixture.h"
#include "ServiceManager/Supervision/MonitoringRecord.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char kPersonalGuid[] = "E60F4B38-97A1-4C25-BD83-0F5C2D7E19A6";
constexpr char kUnmanagedGuid[] = "A4E92C17-D35B-4A08-8F6C-2B71E0D94A3E";

class StartUpTest : public StartUpFixture {
 protected:
  // The daemon lives, has logged and announced why it does nothing, and does nothing.
  void expectIdle(const std::string& logLine, const char* error, const char* description) {
    start();
    queues_.runPending();
    EXPECT_THAT(logSink_.events(), Contains(FakeLogSink::Event{kDaemonIdleId, "", 0}));
    EXPECT_THAT(takeLog(), Contains("3 " + logLine));
    EXPECT_THAT(announcements_, ElementsAre(DistributedNotification{
                                    kDidStartError, std::nullopt,
                                    Dictionary{{"Error", error}, {"Description", description}}}));
    expectNothingStarted();
  }
  void expectNothingStarted() {
    EXPECT_FALSE(manager().watchDog());
    EXPECT_FALSE(manager().installerConnection());
    EXPECT_FALSE(manager().userInterfaceConnection());
    EXPECT_FALSE(manager().deamonConnection());
    EXPECT_TRUE(manager().monitoredProcessesInfo().empty());
    EXPECT_THAT(jobs_.labels(), IsEmpty());
    takeLog();
    startConfigurationServer();
    post("com.vantor.notification.configd.didstart");
    post("KLXGlobalSettingsDidChangeNotification");
    loop_.advanceBy(1h);
    EXPECT_THAT(takeLog(), IsEmpty());
    EXPECT_THAT(jobs_.labels(), IsEmpty());
  }
  void expectMalformedCatalogue() {
    expectIdle("Malformed configuration file. Unable to resolve primary service information",
               "Malformed Configuration", "Unable to resolve primary service information");
  }
  void expectMalformedProductInformation() {
    expectIdle("Malformed configuration file. Unable to resolve product information",
               "Malformed Configuration", "Unable to resolve product information");
  }
  void expectUnknownProduct() {
    expectIdle("Uknown product type. Unable to resolve GUID", "Unkown product type",
               "Unable to resolve GUID");
  }
};

// Steps that can fail.

TEST_F(StartUpTest, WithoutRandomBytesTheDaemonIsSilentlyIdle) {
  random_.limitTo(7);
  start();
  EXPECT_THAT(takeLog(), ElementsAre("3 Service Manager is unable to continue because it can't "
                                     "initialize the kexts"));
  EXPECT_THAT(announcements_, IsEmpty());
  EXPECT_TRUE(manager().secret().isNil());
  expectNothingStarted();
}

TEST_F(StartUpTest, WithoutItsRightsTheDaemonIsIdle) {
  jobs_.setCallerAllowed(false);
  expectIdle("Copy Rights Unsuccessful: -60005", "Authorization failure",
             "Unable to acquire the correct rights to run background services");
}

TEST_F(StartUpTest, AnAuthorizationThatCannotBeCreatedIsIgnored) {
  jobs_.setReachable(false);
  loop_.scheduleOutsideEvent(5500ms, [this] { jobs_.setReachable(true); });
  start();
  EXPECT_THAT(announcements_, ElementsAre(DistributedNotification{kDidStart, std::nullopt, {}}));
  loop_.advanceBy(1s);
  ASSERT_TRUE(jobHostReturned_);
  jobHostReturned_();
  loop_.runReady();
  EXPECT_TRUE(isRunning(kPrimary));
}

TEST_F(StartUpTest, ADaemonWhoseBundleWasTamperedWithIsIdle) {
  signatures_.addRefused("/Daemon.bundle", SecStaticCode::Kind::kBundle,
                         {errSecCSBadResource, "changed"});
  expectIdle(
      "Internal inconsistency! The service manager bundle appears to have been tampered "
      "with\n Service Manager is going into limbo",
      "Internal inconsistency", "The service manager bundle appears to have been tampered with");
}

TEST_F(StartUpTest, AShortageDelaysTheStart) {
  signatures_.setShortage(true);
  startConfigurationServer();
  start();
  loop_.advanceBy(30s);
  EXPECT_THAT(announcements_, IsEmpty());
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  signatures_.setShortage(false);
  loop_.advanceBy(32s);
  EXPECT_THAT(announcements_, ElementsAre(DistributedNotification{kDidStart, std::nullopt, {}}));
  EXPECT_TRUE(isRunning(kPrimary));
}

TEST_F(StartUpTest, AfterAMinuteOfShortageTheDaemonIsIdleUntilItEnds) {
  signatures_.setShortage(true);
  startConfigurationServer();
  start();
  loop_.advanceBy(59s);
  EXPECT_THAT(announcements_, IsEmpty());
  loop_.advanceBy(1h);
  ASSERT_EQ(announcements_.size(), 1u);
  EXPECT_EQ(countInLog("The service manager bundle can't be checked: /Daemon.bundle: Too many open "
                       "files\n Service Manager is going into limbo until it can"),
            1u);
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  signatures_.setShortage(false);
  loop_.advanceBy(1min);
  EXPECT_EQ(announcements_.back(), (DistributedNotification{kDidStart, std::nullopt, {}}));
  EXPECT_TRUE(isRunning(kPrimary));
}

TEST_F(StartUpTest, ADamagedBundleIsNotCheckedAgainAfterAShortage) {
  signatures_.setShortage(true);
  start();
  signatures_.setShortage(false);
  signatures_.addRefused("/Daemon.bundle", SecStaticCode::Kind::kBundle,
                         {errSecCSBadResource, "changed"});
  loop_.advanceBy(1h);
  EXPECT_EQ(signatures_.checks("/Daemon.bundle"), 2);
  EXPECT_EQ(announcements_.size(), 1u);
  expectNothingStarted();
}

TEST_F(StartUpTest, WithoutACatalogueTheDaemonIsIdle) {
  files_.remove(kCatalogueFile);
  expectMalformedCatalogue();
}

TEST_F(StartUpTest, WithAnEmptyCatalogueFileTheDaemonIsIdle) {
  files_.addFile(kCatalogueFile, "");
  expectMalformedCatalogue();
}

TEST_F(StartUpTest, WithATruncatedCatalogueTheDaemonIsIdle) {
  files_.addFile(kCatalogueFile, "<plist><dict><key>Services</key><dict>");
  expectMalformedCatalogue();
}

TEST_F(StartUpTest, WithoutACatalogueDictionaryTheDaemonIsIdle) {
  files_.addPropertyList(kCatalogueFile, Array{catalogue()});
  expectMalformedCatalogue();
}

TEST_F(StartUpTest, TheReasonOfAnUnreadCatalogueIsLogged) {
  files_.addFile(kCatalogueFile, "<plist><dict></plist>");
  start();
  EXPECT_EQ(countInLog(std::string(kCatalogueFile) + ":1:"), 1u);
}

TEST_F(StartUpTest, APrimaryServiceWithoutAJobSpecIsNone) {
  install(catalogue({{kPrimary, Dictionary{{"Products", Array{kProduct}}}}}));
  expectMalformedCatalogue();
}

TEST_F(StartUpTest, APrimaryServiceWithoutAProgramIsNone) {
  install(catalogue({{kPrimary, Dictionary{{"Products", Array{kProduct}},
                                           {"JobSpec", Dictionary{{"UserName", "root"}}}}}}));
  expectMalformedCatalogue();
}

class WrongTypeTest : public StartUpTest, public testing::WithParamInterface<const char*> {};

TEST_P(WrongTypeTest, AtANeededKeyMakesTheDaemonIdle) {
  Dictionary wrong = catalogue();
  wrong.set(GetParam(), 5);
  files_.addPropertyList(kCatalogueFile, wrong);
  expectMalformedCatalogue();
}

INSTANTIATE_TEST_SUITE_P(Catalogue, WrongTypeTest,
                         testing::Values("Services", "Primary", "ProgramPath"));

TEST_F(StartUpTest, WithoutProductInformationTheDaemonIsIdle) {
  files_.remove(kProductFile);
  expectMalformedProductInformation();
}

TEST_F(StartUpTest, WithoutAProductDictionaryTheDaemonIsIdle) {
  files_.addPropertyList(kProductFile, kServerManagedGuid);
  expectMalformedProductInformation();
}

TEST_F(StartUpTest, WithoutTheProductInformationsNameTheDaemonIsIdle) {
  Dictionary nameless = catalogue();
  nameless.set("ProductInfo", 5);
  install(nameless);
  expectMalformedProductInformation();
}

TEST_F(StartUpTest, AGuidInAnotherLetterCaseIsNoProduct) {
  installProduct("5b13d7e2-8c40-4d9f-a27b-6e08f4c1b952");
  expectUnknownProduct();
}

TEST_F(StartUpTest, WithoutAGuidThereIsNoProduct) {
  files_.addPropertyList(kProductFile, Dictionary{{"Another", kServerManagedGuid}});
  expectUnknownProduct();
}

TEST_F(StartUpTest, WithoutTheGuidsKeyThereIsNoProduct) {
  Dictionary keyless = catalogue();
  keyless.remove("ProductInfoKey");
  install(keyless);
  expectUnknownProduct();
}

TEST_F(StartUpTest, AProductWithoutServicesMakesTheDaemonIdle) {
  installProduct(kPersonalGuid);
  expectIdle(
      "Cannot resolve product services. Unable to resolve services that match the current "
      "product: kKLXInstallTypePersonalID",
      "Uknown product type",
      "Unable to resolve services that match the current product: "
      "kKLXInstallTypePersonalID");
}

// A start that succeeds.

TEST_F(StartUpTest, AStartIsAnnouncedWhenEverythingIsThere) {
  start();
  EXPECT_THAT(announcements_, ElementsAre(DistributedNotification{kDidStart, std::nullopt, {}}));
  EXPECT_EQ(manager().product(), kProduct);
  EXPECT_EQ(manager().secret(), Value(Data{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_THAT(manager().kextsLoaded(), IsEmpty());
  EXPECT_THAT(manager().userClients(), IsEmpty());
  EXPECT_FALSE(manager().healthInfo());
  EXPECT_TRUE(manager().watchDog());
}

TEST_F(StartUpTest, AStartIsAnnouncedThoughTheBusHadHungUpMeanwhile) {
  loop_.sleepFor(FakeNotificationBus::kLogInTime + 1s);
  start();
  EXPECT_THAT(announcements_, IsEmpty());
  loop_.advanceBy(FakeNotificationBus::kRetryTime);
  EXPECT_THAT(announcements_, ElementsAre(DistributedNotification{kDidStart, std::nullopt, {}}));
}

TEST_F(StartUpTest, TheOwnersLineShowsTheEffectiveUserTwice) {
  owner_ = {501, 0, 20};
  start();
  const auto log = takeLog();
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ(log[0], "7 real UID: 501 | effective UID: 0");
  EXPECT_EQ(log[1], "7 real GID: 20 | effective GID: 0");
}

TEST_F(StartUpTest, TheDaemonsLinesBearItsClassName) {
  start();
  queues_.runPending();
  EXPECT_THAT(logSink_.messages(), Not(IsEmpty()));
  for (const auto& message : logSink_.messages()) EXPECT_EQ(message.ident, "ORBServiceManager");
}

TEST_F(StartUpTest, OnlyTheProductsServicesAreKnown) {
  constexpr char kForeign[] = "com.example.foreign";
  Dictionary services = *catalogue()["Services"].dictionary();
  Dictionary foreign = entry("foreign", {{"Notification", "foreign up"}});
  foreign.set("Products", Array{"kKLXInstallTypePersonalID"});
  services.set(kForeign, foreign);
  install(catalogue(services));
  start();
  EXPECT_EQ(manager().services(), catalogue()["Services"]);
  EXPECT_EQ(manager().serviceInfo()["ProgramPath"], Value("/opt/app"));
  EXPECT_FALSE(manager().monitoredProcessesInfo().contains(kForeign));
  EXPECT_TRUE(ORBServiceManager::jobInfoWithLabel(kForeign, manager().serviceInfo()).isNil());
  enterMode(ORBOperatingModeNormal);
  evaluate();
  EXPECT_THAT(jobs_.labels(), Not(Contains(kForeign)));
}

TEST_F(StartUpTest, EveryServiceOfTheProductHasARecord) {
  system_.setRelease("15.0.0", {10, 11, 0});
  start();
  EXPECT_EQ(manager().monitoredProcessesInfo().size(), 3u);
  EXPECT_EQ(manager().monitoredProcessesInfo()[kHelper], initialMonitoringRecord());
  EXPECT_TRUE(manager().serviceToFeatureNotificationMap().empty());
  EXPECT_TRUE(manager().monitoredProcessesRunLoopSources().empty());
}

TEST_F(StartUpTest, AFeatureServiceWithoutAnnouncementsIsWarnedOf) {
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set("com.example.mute", entry("mute", {{"Features", Array{}}}));
  services.set("com.example.loud",
               entry("loud", {{"Features", Array{}}, {"Notification", "loud up"}}));
  install(catalogue(services));
  start();
  EXPECT_EQ(countInLog("does not emit startup messages"), 1u);
  EXPECT_THAT(takeLog(), Contains("4 com.example.mute does not emit startup messages"));
}

TEST_F(StartUpTest, AServicesOwnNotificationEvaluatesIt) {
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set(kAgent, entry("agent", {{"Notification", "agent up"}}));
  install(catalogue(services));
  startConfigurationServer();
  start();
  post("agent up");
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_FALSE(isRunning(kHelper));
}

// The health record, by product.

class HealthByProductTest : public StartUpTest,
                            public testing::WithParamInterface<std::pair<const char*, bool>> {};

TEST_P(HealthByProductTest, IsKeptForTwoProductsOnly) {
  const auto& [guid, keepsHealth] = GetParam();
  Dictionary services{{kPrimary, entry("configd")}};
  const Array all{"kKLXInstallTypePersonalID", "kKLXInstallTypeServerManagedID",
                  "kKLXInstallTypeUnmanagedID", "kKLXInstallTypeHostedManagedID",
                  "kKLXInstallTypeHouseholdID"};
  services.set(kPrimary,
               Dictionary{{"Products", all},
                          {"JobSpec", Dictionary{{"Program", "configd"},
                                                 {"ProgramArguments", Array{"Settings", "-d"}}}}});
  services.set(
      kAgent,
      Dictionary{{"Products", all},
                 {"JobSpec", Dictionary{{"Program", "agent"}, {"ProgramArguments", Array{}}}}});
  install(catalogue(services));
  installProduct(guid);
  start();
  EXPECT_EQ(manager().healthInfo() != nullptr, keepsHealth);
  if (keepsHealth) {
    EXPECT_THAT(
        takeReports(),
        ElementsAre("monitored com.example.configd", "monitored com.example.agent",
                    "name Settings com.example.configd", "ready", "start com.example.configd"));
    manager().backgroundServiceWillTerminate({});
    EXPECT_THAT(takeReports(), ElementsAre("not ready"));
  } else {
    manager().backgroundServiceWillTerminate({});
    EXPECT_THAT(takeReports(), IsEmpty());
  }
  EXPECT_THAT(announcements_, ElementsAre(DistributedNotification{kDidStart, std::nullopt, {}}));
}

INSTANTIATE_TEST_SUITE_P(Products, HealthByProductTest,
                         testing::Values(std::pair(kPersonalGuid, false),
                                         std::pair("5B13D7E2-8C40-4D9F-A27B-6E08F4C1B952", false),
                                         std::pair(kUnmanagedGuid, false),
                                         std::pair(kHostedManagedGuid, true),
                                         std::pair(kHouseholdGuid, true)));

}  // namespace
