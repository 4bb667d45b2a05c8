#pragma once

// The daemon on a machine that exists only in a test, beside programs that speak to it.

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Platform/Testing/Files/FakeExtendedAttributes.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/SystemFacts/FakeRandomDevice.h"
#include "Platform/Testing/XPC/FakeXPC.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/ServiceManager/UserInterface_fixture.h"
#include "ServiceManager/Supervision/SupervisedMachine_fixture.h"

inline constexpr char kScanner[] = "com.example.scanner";
inline constexpr char kHostedManagedGuid[] = "71C0E5B9-2A8D-4F36-B0E4-9D63A1F2C875";
inline constexpr char kHouseholdGuid[] = "3D8F1A20-6B4C-4E7A-9C11-5A2E7B90C4D1";
inline constexpr char kEvaluating[] = "7 Evaluating the system configuration";

inline constexpr auto kNormal = ORBOperatingModeNormal;
inline constexpr auto kInstaller = ORBOperatingModeInstaller;
inline constexpr auto kWaiting = ORBOperatingModeWaitingForPrimaryService;

// The health record's states as numbers, as they go over a connection.
inline constexpr std::int64_t kUnready = 0;
inline constexpr std::int64_t kRunning = 1;
inline constexpr std::int64_t kStopped = 2;
inline constexpr std::int64_t kUpdating = 3;

// The object behind the status server of the primary service. The test decides its answer; the
// connections to it are real.
class StatusServer final : public platform::MessageReceiver {
 public:
  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array&) override {
    EXPECT_EQ(selector, "isServerUp");
    ++questions;
    return answer;
  }
  platform::MessageResult answer = platform::Value(true);
  int questions = 0;
};

class ServiceManagerFixture : public SupervisedMachine {
 protected:
  static constexpr char kStatusServer[] = "com.vantor.service.configd.status";
  static constexpr char kCatalogueFile[] = "/Daemon.bundle/Contents/Resources/Service.plist";
  static constexpr char kProductFile[] = "/opt/app/product.plist";
  static constexpr char kServerManagedGuid[] = "5B13D7E2-8C40-4D9F-A27B-6E08F4C1B952";

  ServiceManagerFixture() {
    addServiceManagerProtocols(protocols_);
    signatures_.addValid("/Daemon.bundle", platform::SecStaticCode::Kind::kBundle, "daemon");
  }

  void install(const Dictionary& catalogue) {
    files_.addPropertyList(kCatalogueFile, catalogue);
    addPrograms(catalogue);
  }
  void installProduct(const char* guid) {
    files_.addPropertyList(kProductFile, Dictionary{{"GUID", guid}});
  }

  // Replaces the daemon by one that has been started with this catalogue. It is in normal mode, and
  // has evaluated nothing yet.
  void use(const Dictionary& catalogue) {
    install(catalogue);
    restart();
  }
  // The same with a health record, which notes the reports.
  void useHealth() {
    hasHealthRecord_ = true;
    restart();
  }
  // The rights have been acquired, and the first steps of the start been done.
  void launch() {
    manager().backgroundServiceDidFinishLaunching({});
    loop_.runReady();
  }
  void restart() {
    installProduct(hasHealthRecord_ ? kHostedManagedGuid : kServerManagedGuid);
    manager_.reset();
    const bool isServerUp = configurationProgram_.has_value();
    if (!isServerUp) startConfigurationServer();
    launch();
    passOverEvaluation();
    if (!isServerUp) stopConfigurationServer();
    loop_.runReady();
    configurationServer_.questions = 0;
    takeLog();
    takeReports();
  }

  // Brings the daemon into the mode by the events that lead there, and evaluates nothing.
  void enterMode(std::int64_t mode) {
    if (mode == manager().operatingMode()) return;
    if (mode == kInstaller) manager().shutdownServices({}, {});
    if (mode == kWaiting) manager().handleGlobalSettingsServerWillShutdown({});
    if (mode == kNormal) {
      const bool isServerUp = configurationProgram_.has_value();
      if (!isServerUp) startConfigurationServer();
      manager().evaluateServices();
      loop_.advanceBy(kEvaluationDelay);
      passOverEvaluation();
      if (!isServerUp) stopConfigurationServer();
      loop_.runReady();
    }
    ASSERT_EQ(manager().operatingMode(), mode);
    takeLog();
    takeReports();
  }

  // The settings that a prefix's server holds; naming them makes the prefix resolve.
  std::map<std::string, Value>& settings(const std::string& prefix) {
    factories_.add(prefix + "SettingsClientWithDelegate:",
                   [this, prefix](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                     ++clientsMade_;
                     return std::make_unique<FakeSettingsClient>(settings_[prefix], &forgetCalls_);
                   });
    return settings_[prefix];
  }

  // Operations of the daemon that end later.
  bool stop(ORBServiceManager::Label label) {
    return answerTo<bool>([&](ORBServiceManager::StopAnswer answer) {
      manager().enforceShutdownForService(label, std::move(answer));
    });
  }
  bool shutDown(const Array& labels) {
    return answerTo<bool>([&](ORBServiceManager::StopAnswer answer) {
      manager().shutdownServices(labels, std::move(answer));
    });
  }
  bool startExtensions(const char* label) {
    return answerTo<bool>([&](ExtensionControl::Done done) {
      manager().startAssociatedSystemExtensions(label, std::move(done));
    });
  }
  // An evaluation, to its end.
  void evaluate() {
    manager().evaluateSystemConfiguration();
    loop_.runReady();
  }

  std::unique_ptr<ORBServiceManagerHealthInfo> makeHealthInfo() {
    return std::make_unique<ORBServiceManagerHealthInfo>(
        ORBServiceManagerHealthInfo::Environment{queues_, connections_, protocols_, system_});
  }

  // The configuration server is another program, which serves until it is destroyed.
  void startConfigurationServer() {
    configurationProgram_.emplace(*this, 200);
    configurationProgram_->vend(kStatusServer, configurationServer_,
                                "ORBServiceManagerConfigurationServerStatusProtocol");
  }
  void stopConfigurationServer() { configurationProgram_.reset(); }

  void post(const std::string& name, Value userInfo = {}) {
    otherCenter_->postNotificationName(name, std::nullopt, std::move(userInfo),
                                       platform::NSNotificationPosting::kPostToAllSessions);
    loop_.runReady();
  }

  // The operator's facts, as the operator's server reports them.
  Value serviceFacts(const char* label) { return report_.factsOfService(picture(), label); }
  Dictionary extensionFacts() { return report_.extensions(picture()); }

  std::shared_ptr<UserInterface> registerClient() {
    auto client = std::make_shared<UserInterface>(protocols_);
    manager().registerClient(client->proxy);
    return client;
  }

  static Value notice(const char* label, std::int64_t status, std::optional<int> process = {}) {
    Dictionary notice{{"Label", label}, {"status", status}};
    if (process) notice.set("PID", *process);
    return notice;
  }

  ORBServiceManager& manager() {
    if (!manager_) manager_.emplace(platform());
    return *manager_;
  }
  ServiceManagerPlatform platform() {
    return {loop_,
            jobs_,
            authorization_,
            exitWatcher_,
            files_,
            signatures_,
            random_,
            system_,
            connections_,
            *center_,
            notificationCenter_,
            protocols_,
            bundle_,
            extensionsPlatform_,
            [this](platform::RunLoop::Callback work) { loop_.post(std::move(work)); },
            owner_,
            {[this](const std::string&, SettingsWorker::Work work) {
              loop_.post([this, work = std::move(work)]() mutable { work(settingsParts_); });
            }},
            {[this](platform::RunLoop::Callback work) {
               if (!operatorsWork_) return work();
               operatorsWork_->push_back(std::move(work));
             },
             loop_, connections_, jobs_, extensionsPlatform_, factories_},
            [this]() -> std::unique_ptr<ServiceHealth> {
              if (keepsHealthRecord_) return makeHealthInfo();
              return std::make_unique<FakeServiceHealth>(reports_);
            },
            xpc_.xpc,
            attributes_,
            [this](std::function<void()> onReturn) { jobHostReturned_ = std::move(onReturn); },
            [this](const std::function<void(const SettingsClientFactories&)>& ask) {
              ++askedOnAnotherThread_;
              ask(factories_);
            }};
  }

  // Another program beside the daemon.
  struct Program {
    Program(ServiceManagerFixture& test, platform::ProcessId process)
        : system(test.system_),
          protocols(test.protocols_),
          transport(test.network_, {process, 0, 0}),
          connections(test.loop_, transport, center, test.systemLog_, &nameInFolder) {}

    void vend(const char* name, platform::MessageReceiver& object, const char* protocol) {
      server = connections.makeConnection();
      server->setDelegate(&authenticator);
      server->setRootObject(
          std::make_shared<platform::NSProtocolChecker>(&object, protocols.find(protocol)));
      EXPECT_TRUE(server->registerName(name));
    }

    const platform::SystemInformation& system;
    const platform::ProtocolTable& protocols;
    KLXConnectionAuthenticator authenticator{system};
    platform::NotificationCenter center;
    platform::FakePeerTransport transport;
    platform::NamedConnections connections;
    std::shared_ptr<platform::NSConnection> server;
  };

  static constexpr platform::Duration kEvaluationDelay = std::chrono::milliseconds(100);

  // Lets the pending evaluation pass without starting a service: it ends if the user interface has
  // stopped the primary service.
  void passOverEvaluation() {
    const std::string* primary = manager().serviceInfo()["Primary"].string();
    ASSERT_TRUE(primary);
    manager().trackServiceForUserClientShutdownRequest(*primary, true);
    loop_.advanceBy(kEvaluationDelay);
    manager().trackServiceForUserClientShutdownRequest(*primary, false);
  }

  OperatorPicture picture() {
    OperatorPicture picture = manager().operatorPicture();
    if (manager().healthInfo()) picture.healthRecord = manager().healthInfo()->healthRecord();
    return picture;
  }

  static std::string nameInFolder(std::string_view name) { return "/names/" + std::string(name); }

  platform::FakeLogSink systemSink_;  // lines of the platform itself
  platform::SystemLog systemLog_{systemSink_, "test"};
  platform::FakeRandomDevice random_;
  platform::FakeNotificationBus bus_{loop_};
  std::unique_ptr<platform::DistributedNotificationCenter> center_ = bus_.makeCenter(systemLog_);
  std::unique_ptr<platform::DistributedNotificationCenter> otherCenter_ =
      bus_.makeCenter(systemLog_);
  platform::FakePeerNetwork network_{loop_};
  platform::FakePeerTransport transport_{network_, {100, 0, 0}};
  std::function<void(std::string_view name)> onName_;  // a name that the daemon serves or looks up
  platform::NamedConnections connections_{loop_, transport_, notificationCenter_, systemLog_,
                                          [this](std::string_view name) {
                                            if (onName_) onName_(name);
                                            return nameInFolder(name);
                                          }};
  platform::FakeXPC xpc_{network_, {100, 0, 0}, systemLog_};
  platform::FakeExtendedAttributes attributes_;
  platform::ProtocolTable protocols_;
  ProcessOwner owner_{501, 0, 20};
  SettingsClientFactories factories_;
  const SettingsParts settingsParts_{
      {loop_, connections_, *center_, notificationCenter_, protocols_, system_}, factories_};
  int askedOnAnotherThread_ = 0;  // with factories of the calling thread
  std::map<std::string, std::map<std::string, Value>> settings_;
  int clientsMade_ = 0;
  int forgetCalls_ = 0;  // of their clients
  std::function<void()> jobHostReturned_;
  // The product keeps a health record: a fake one, or the real one.
  bool hasHealthRecord_ = false;
  bool keepsHealthRecord_ = false;
  // Work of the operator's thread, if a test holds it up.
  std::optional<std::vector<platform::RunLoop::Callback>> operatorsWork_;
  StatusServer configurationServer_;
  std::optional<Program> configurationProgram_;
  std::optional<ORBServiceManager> manager_;
  KLXGlobalSettingsClientDelegate reportsDelegate_;
  SettingsSources reportsSources_{factories_, reportsDelegate_};
  OperatorReport report_{{loop_, system_, extensionsPlatform_, jobs_, reportsSources_}};
};
