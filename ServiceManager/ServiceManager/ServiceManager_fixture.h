#pragma once

// The daemon on a machine that exists only in a test: virtual time, fake jobs, files, signatures
// and peers. Properties can be set one by one, or the whole start be made.

#include <expected>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Files/FakeExtendedAttributes.h"
#include "Platform/Testing/Files/FakeFileReader.h"
#include "Platform/Testing/Jobs/FakeAuthorization.h"
#include "Platform/Testing/Jobs/FakeJobs.h"
#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"
#include "Platform/Testing/KernelExtensions/FakeKernelExtensions.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/Processes/FakeExitWatcher.h"
#include "Platform/Testing/Processes/FakeTasks.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/RunLoops/VirtualSerialQueues.h"
#include "Platform/Testing/SystemFacts/FakeRandomDevice.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "Platform/Testing/XPC/FakeXPC.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/MonitoringRecord.h"

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

// A health record that notes what is reported, as "report LABEL", and holds the states that follow.
class FakeServiceHealth final : public ServiceHealth {
 public:
  explicit FakeServiceHealth(std::vector<std::string>& reports) : reports_(reports) {}

  void setMonitoredServices(const std::vector<std::string>& labels) override {
    for (const auto& label : labels) note("monitored", label), problems_.insert(label);
  }
  void setServiceNamesToReport(std::map<std::string, std::string> names) override {
    for (const auto& [label, name] : names) note("name " + name, label);
  }
  void setReadyToReport(bool ready) override { reports_.push_back(ready ? "ready" : "not ready"); }
  void stopMonitoringForService(std::string_view label) override {
    note("stop monitoring", label), settle(label);
  }
  void reportUnreadyStateForService(std::string_view label) override {
    note("unready", label), problems_.emplace(label);
  }
  void reportStartForService(std::string_view label) override {
    note("start", label), settle(label);
  }
  void reportStopForService(std::string_view label) override { note("stop", label), settle(label); }
  void reportForcedStopForService(std::string_view label) override { note("forced stop", label); }
  void reportIntallerEventStartedForService(std::string_view label) override {
    note("installer event", label), settle(label);
  }
  void reportInstallerEventFinished() override { reports_.push_back("installer event finished"); }
  std::set<std::string> problemServices() override { return problems_; }
  platform::Value healthRecord() override { return platform::Dictionary(); }

 private:
  void note(const std::string& report, std::string_view label) {
    reports_.push_back(report + " " + std::string(label));
  }
  void settle(std::string_view label) { problems_.erase(std::string(label)); }

  std::vector<std::string>& reports_;
  std::set<std::string> problems_;
};

// A user interface's object that takes notices, or does not.
class FakeUserClient final : public platform::NSProxy {
 public:
  std::string_view className() const override { return "NSDistantObject"; }
  bool conformsToProtocol(std::string_view name) const override {
    return name == protocol && name == "ORBServiceManagerUserInterfaceDelegateProtocol";
  }
  platform::MessageResult sendMessage(std::string_view selector,
                                      const platform::Array& arguments) const override {
    EXPECT_EQ(selector, "jobStatusDidChangeWithInfo:");
    notices.push_back(arguments.at(0));
    if (onNotice) onNotice();
    if (exception) return std::unexpected(*exception);
    return platform::Value();
  }

  std::string protocol = "ORBServiceManagerUserInterfaceDelegateProtocol";
  std::optional<platform::NSException> exception;
  std::function<void()> onNotice;
  mutable std::vector<platform::Value> notices;
};

// Removes nothing, or not the one label, whoever asks.
class RefusingJobs final : public platform::Jobs {
 public:
  explicit RefusingJobs(platform::Jobs& jobs, std::optional<std::string> label = {})
      : jobs_(jobs), label_(std::move(label)) {}
  std::expected<void, platform::NSError> SMJobSubmit(
      std::string_view domain, const platform::Value& job,
      const platform::AuthorizationRef* authorization) override {
    return jobs_.SMJobSubmit(domain, job, authorization);
  }
  std::expected<void, platform::NSError> SMJobRemove(
      std::string_view domain, std::string_view label,
      const platform::AuthorizationRef* authorization, bool wait) override {
    if (label_ && label != *label_) return jobs_.SMJobRemove(domain, label, authorization, wait);
    return std::unexpected(platform::NSError{platform::kCFErrorDomainLaunchd, 4, "not you"});
  }
  platform::Value SMJobCopyDictionary(std::string_view domain, std::string_view label) override {
    return jobs_.SMJobCopyDictionary(domain, label);
  }

 private:
  platform::Jobs& jobs_;
  std::optional<std::string> label_;
};

// Answers from settings that the test holds.
class FakeSettingsClient final : public SettingsClient {
 public:
  explicit FakeSettingsClient(const std::map<std::string, platform::Value>& settings)
      : settings_(settings) {}
  platform::Value objectForKey(std::string_view key) override {
    const auto found = settings_.find(std::string(key));
    return found == settings_.end() ? platform::Value() : found->second;
  }
  platform::MessageResult lookAtObjectForKey(std::string_view key, platform::Duration) override {
    return objectForKey(key);
  }
  void forgetConnection() override { ++lookedUpAnew; }

  int lookedUpAnew = 0;

 private:
  const std::map<std::string, platform::Value>& settings_;
};

// The program of the primary service, as far as the daemon asks it.
class FakeConfigurationServer final : public platform::MessageReceiver {
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

class ServiceManagerFixture : public testing::Test {
 protected:
  using Value = platform::Value;
  using Array = platform::Array;
  using Dictionary = platform::Dictionary;

  static constexpr char kPrimary[] = "com.example.configd";
  static constexpr char kAgent[] = "com.example.agent";
  static constexpr char kHelper[] = "com.example.helper";
  static constexpr char kProduct[] = "kKLXInstallTypeServerManagedID";
  static constexpr char kStatusServer[] = "com.vantor.service.configd.status";

  ServiceManagerFixture() {
    addServiceManagerProtocols(protocols_);
    signatures_.addValid("/Daemon.bundle", platform::SecStaticCode::Kind::kBundle, "daemon");
  }

  // A core service's entry; its job has no throttle.
  static Dictionary entry(const std::string& program) {
    return {{"Products", Array{kProduct}},
            {"JobSpec", Dictionary{{"Program", program}, {"ThrottleInterval", 0}}}};
  }
  static Dictionary entry(const std::string& program,
                          std::initializer_list<Dictionary::Entry> more) {
    Dictionary extended = entry(program);
    for (const auto& [key, value] : more) extended.set(key, value);
    return extended;
  }

  static Dictionary catalogue(Dictionary services) {
    return {{"Services", std::move(services)},
            {"Primary", kPrimary},
            {"ProgramPath", "/opt/app"},
            {"ProductInfo", "product.plist"},
            {"ProductInfoKey", "GUID"}};
  }
  static Dictionary catalogue() {
    return catalogue(
        {{kPrimary, entry("configd")}, {kAgent, entry("agent")}, {kHelper, entry("helper")}});
  }

  // As after a start: the catalogue, a record for each service, a sound program for each.
  void use(const Dictionary& catalogue) {
    Dictionary records;
    for (const auto& [label, service] : *catalogue["Services"].dictionary()) {
      records.set(label, initialMonitoringRecord());
      if (const std::string* program = service["JobSpec"]["Program"].string()) addProgram(*program);
    }
    manager().setServiceInfo(catalogue);
    manager().setMonitoredProcessesInfo(std::move(records));
  }

  static std::string pathOf(const std::string& program) { return "/opt/app/" + program; }
  void addProgram(const std::string& program) {
    files_.addFile(pathOf(program));
    signatures_.addValid(pathOf(program), platform::SecStaticCode::Kind::kProgram, program);
  }
  void damageProgram(const std::string& program) {
    signatures_.addRefused(pathOf(program), platform::SecStaticCode::Kind::kProgram,
                           {platform::errSecCSSignatureFailed, "changed"});
  }

  // The settings that a prefix's server holds; naming them makes the prefix resolve.
  std::map<std::string, Value>& settings(const std::string& prefix) {
    factories_.add(prefix + "SettingsClientWithDelegate:",
                   [this, prefix](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                     ++clientsMade_;
                     return std::make_unique<FakeSettingsClient>(settings_[prefix]);
                   });
    return settings_[prefix];
  }

  void useHealth() { manager().setHealthInfo(std::make_unique<FakeServiceHealth>(reports_)); }
  std::unique_ptr<ORBServiceManagerHealthInfo> makeHealthInfo() {
    return std::make_unique<ORBServiceManagerHealthInfo>(
        ORBServiceManagerHealthInfo::Environment{queues_, connections_, protocols_, system_});
  }
  std::vector<std::string> takeReports() { return std::exchange(reports_, {}); }

  // The configuration server: another program, which serves as long as it lives.
  void startConfigurationServer() {
    configurationProgram_.emplace(*this, 200);
    configurationProgram_->vend(kStatusServer, configurationServer_,
                                "ORBServiceManagerConfigurationServerStatusProtocol");
  }
  void stopConfigurationServer() { configurationProgram_.reset(); }

  void useConfigurationServer() {
    manager().setPrimaryServiceNotificationClient(std::make_unique<VantorDistantObject>(
        VantorDistantObject::Environment{loop_, connections_, *center_, notificationCenter_,
                                         protocols_, system_},
        kStatusServer, "ORBServiceManagerConfigurationServerStatusProtocol", std::nullopt));
  }

  void post(const std::string& name, Value userInfo = {}) {
    otherCenter_->postNotificationName(name, std::nullopt, std::move(userInfo),
                                       platform::NSNotificationPosting::kPostToAllSessions);
    loop_.runReady();
  }

  std::shared_ptr<FakeUserClient> registerClient() {
    auto client = std::make_shared<FakeUserClient>();
    manager().registerClient(client);
    return client;
  }

  static Value notice(const char* label, std::int64_t status, std::optional<int> process = {}) {
    Dictionary notice{{"Label", label}, {"status", status}};
    if (process) notice.set("PID", *process);
    return notice;
  }

  int process(const char* label) { return static_cast<int>(jobs_.process(label).value_or(-1)); }
  bool isRunning(const char* label) { return jobs_.process(label).has_value(); }
  // Ends the job's process and serves what follows.
  void kill(const char* label) {
    jobs_.endProcess(label, {platform::ExitStatus::Kind::kSignalled, 9});
    loop_.runReady();
  }

  // What the daemon has logged since it was last asked, as "LEVEL TEXT".
  std::vector<std::string> takeLog() {
    queues_.runPending();
    std::vector<std::string> lines;
    for (const auto& message : logSink_.take()) {
      const std::size_t prefix = message.text.find("] ");
      EXPECT_TRUE(message.text.starts_with("[")) << message.text;
      lines.push_back(std::to_string(message.level) + " " + message.text.substr(prefix + 2));
    }
    return lines;
  }
  std::size_t countInLog(const std::string& part) {
    queues_.runPending();
    return logSink_.count(part);
  }

  ORBServiceManager& manager() {
    if (!manager_) manager_.emplace(platform(jobs_));
    return *manager_;
  }
  ServiceManagerPlatform platform(platform::Jobs& jobs) {
    return {loop_,
            jobs,
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
            {extensions_, controls_, tasks_, "/root"},
            owner_,
            factories_,
            [this]() -> std::unique_ptr<ServiceHealth> {
              if (keepsHealthRecord_) return makeHealthInfo();
              return std::make_unique<FakeServiceHealth>(reports_);
            },
            xpc_.xpc,
            attributes_,
            [this](std::function<void()> onReturn) { jobHostReturned_ = std::move(onReturn); },
            [this](const std::function<void(const SettingsClientFactories&)>& ask) {
              ask(factories_);
            }};
  }

  // A program beside the daemon.
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

  static std::string nameInFolder(std::string_view name) { return "/names/" + std::string(name); }

  platform::VirtualRunLoop loop_;
  platform::FakeLogSink logSink_;
  platform::FakeLogSink systemSink_;  // what the platform says for itself
  platform::SystemLog log_{logSink_, "test"};
  platform::SystemLog systemLog_{systemSink_, "test"};
  // Writes what waits when it ends, so it ends before what it writes to.
  platform::VirtualSerialQueues queues_{loop_};
  Logger2State logger2_{log_, queues_};
  Logger2Binding binding_{logger2_};
  platform::FakeExitWatcher exitWatcher_{loop_};
  platform::FakeJobs jobs_{loop_, exitWatcher_};
  platform::FakeAuthorization authorization_{jobs_};
  platform::FakeFileReader files_;
  platform::FakeCodeSignatures signatures_;
  platform::FakeRandomDevice random_;
  platform::FakeSystemInformation system_;
  platform::FakeNotificationBus bus_{loop_};
  std::unique_ptr<platform::DistributedNotificationCenter> center_ = bus_.makeCenter(systemLog_);
  std::unique_ptr<platform::DistributedNotificationCenter> otherCenter_ =
      bus_.makeCenter(systemLog_);
  platform::NotificationCenter notificationCenter_;
  platform::FakeKernelControls controls_{loop_};
  platform::FakeKernelExtensions extensions_{loop_, controls_};
  platform::FakeTasks tasks_{notificationCenter_, true};
  platform::FakePeerNetwork network_{loop_};
  platform::FakePeerTransport transport_{network_, {100, 0, 0}};
  platform::NamedConnections connections_{loop_, transport_, notificationCenter_, systemLog_,
                                          &nameInFolder};
  platform::FakeXPC xpc_{network_, {100, 0, 0}, systemLog_};
  platform::FakeExtendedAttributes attributes_;
  platform::ProtocolTable protocols_;
  platform::Bundle bundle_{
      {"/Daemon.bundle", "/Daemon.bundle/Contents/Info.plist",
       "/Daemon.bundle/Contents/Linux/daemon", "/Daemon.bundle/Contents/Resources"},
      {}};
  ProcessOwner owner_{501, 0, 20};
  SettingsClientFactories factories_;
  std::map<std::string, std::map<std::string, Value>> settings_;
  int clientsMade_ = 0;
  std::function<void()> jobHostReturned_;
  // A start makes the health record itself instead of what notes the reports.
  bool keepsHealthRecord_ = false;
  std::vector<std::string> reports_;
  FakeConfigurationServer configurationServer_;
  std::optional<Program> configurationProgram_;
  std::optional<ORBServiceManager> manager_;
};
