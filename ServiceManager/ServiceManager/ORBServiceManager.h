#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/RunLoops/DelayedCalls.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/NSXPCListener.h"
#include "ServiceManager/ServiceManager/KextLoading.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerOperatorServer.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"
#include "ServiceManager/ServiceManager/OperatingMode.h"
#include "ServiceManager/ServiceManager/ServiceManagerPlatform.h"
#include "Shared/ORBSigningValidator.h"

class ORBServiceManager;

// What an exit watch gives its callback.
struct ExitNoteContext {
  ORBServiceManager* object = nullptr;
  std::string jobIdentifier;  // the service's label
};

// The end of a watched service's process.
void ORBExitNoteKQueueCallBack(const ExitNoteContext& info, platform::ProcessId process);

// The daemon's one main class. It reads the catalogue of the product's services, decides which of
// them must run, submits those as jobs, watches their processes and decides again after every exit,
// every change of the settings and every request of the installer and the user interface.
//
// Each topic has a file of its own. Everything belongs to the main thread and takes no lock; where
// a call blocks (a removal, a job without a process yet, a remote answer) it blocks that thread,
// for a bounded time. No operation fails by more than its result: failures are logged.
class ORBServiceManager final : public platform::VGBackgroundServiceDelegate,
                                public KLXGlobalSettingsClientDelegate,
                                public platform::NSConnectionDelegate,
                                public ExecInfoHandlerDelegate,
                                public platform::MessageReceiver {
 public:
  // A service's label: its key in the catalogue and its job's label. Nothing is nil.
  using Label = std::optional<std::string_view>;
  static constexpr char kClassName[] = "ORBServiceManager";

  using CompletionBlock = std::move_only_function<void()>;  // Empty where there is none.

  explicit ORBServiceManager(const ServiceManagerPlatform& platform);
  ORBServiceManager(const ORBServiceManager&) = delete;
  ORBServiceManager& operator=(const ORBServiceManager&) = delete;
  ~ORBServiceManager() override;

  // Start-up and shut-down. What fails in the first steps of the start leaves the daemon alive but
  // idle; a shut-down stops no service.
  void backgroundServiceDidFinishLaunching(const platform::Value& notification) override;
  void backgroundServiceWillTerminate(const platform::Value& notification) override;

  // The catalogue's lookups: pure functions of the catalogue dictionary they are given, nil where
  // the path through it is missing or a value on it has another type than it should.

  // What every job has, whatever the catalogue says: it is kept alive, its output discarded.
  static platform::Dictionary defaultJobInfoTemplate();
  static platform::Value serviceEntryWithLabel(Label label, const platform::Value& inServicePlist);
  static platform::Value featureEntryWithFeatureName(Label featureName,
                                                     const platform::Value& inServicePlist);
  // The service's job dictionary.
  static platform::Value jobInfoWithLabel(Label label, const platform::Value& inServicePlist);
  // kCoreService or kFeatureService.
  static std::string_view serviceTypeForLabel(Label label, const platform::Value& inServicePlist);
  // The job dictionary of the service that everything else depends on.
  static platform::Value primaryServiceInfo(const platform::Value& inServicePlist);

  static constexpr std::string_view kCoreService = "CoreService";
  static constexpr std::string_view kFeatureService = "FeatureService";

  // Evaluation: which services must run.

  // The watchdog: finds out that the primary service has come up, and evaluates then, or that it
  // has gone.
  void evaluateWaitingForPrimaryServiceOperatingMode();
  // In normal mode: makes the primary service run, then decides about every other.
  void evaluateSystemConfiguration();
  void evaluateInformationForService(const std::string& label);
  // The client of the settings server that a "Source" of the catalogue names; null where there is
  // none. What failed once is not tried again.
  SettingsClient* configurationWithSelectorPrefix(const std::string& prefix);

  // Changes of the settings, and what else makes the daemon decide again.
  void handleGlobalSettingsServerDidStart(const platform::DistributedNotification& notification);
  void handleGlobalSettingsServerWillShutdown(
      const platform::DistributedNotification& notification);
  void handleGlobalSettingsDidChange(const platform::DistributedNotification& notification);
  // Notices may have been missed: decides, outside an installer's work, as if those of the primary
  // service and of a change of the settings had come.
  void handleNotificationsReturn();
  // The job host answers again: what may have failed only because it did not is done, outside an
  // installer's work: what the user interface has stopped is, and all else is decided anew.
  void handleJobHostReturn();
  void globalSettingsServerDidRestart(SettingsClient& client) override;
  // The installer has finished. Always true.
  bool evaluateServices();
  void evaluateRunningModeAfterInstallerEvent();
  void scheduleReevaluation();
  // Starts again what is not ready. The timer is not used; it belongs to the selector.
  void reevaluateConfiguration(const platform::RunLoopHandle* timer);
  // Whether this system is recent enough for the service.
  bool checkOSSupportForService(const std::string& label);
  // For the executable-information service, on one of its queues; nil where it is not known.
  platform::Value getLastLoggedInUserHomeDirectory() override;

  // Jobs.

  // Submits a dictionary, or removes the job that a string names and waits for its end. False with
  // an error where that failed; false with `requestError` untouched for any other request.
  bool submitJobRequest(const platform::Value& request, std::string_view forDomain,
                        std::optional<platform::NSError>& requestError);
  bool unloadJobFromLaunchD(std::string_view label);

  // Watching processes.

  // Arms a watch for the end of the service's process, which is waited for if there is none yet: 12
  // seconds at most. False where there is no process or the label can't be watched.
  // `retryOnFailure` is deliberately ignored.
  bool monitorJobWithIdentifier(Label label, bool retryOnFailure);

  // Enforcing what was decided.

  // The service's job dictionary once it has been submitted; nil where it can't or may not run.
  // `firstTime` says that no job has the label yet.
  platform::Value launchService(const std::string& label, bool firstTime);
  // Makes the service's job run and watches it. The block is called once the job is known to run.
  void enforceRunningForService(Label label, CompletionBlock withCompletionBlock);
  // Removes the service's job and waits for its end. True if there is none any more.
  bool enforceShutdownForService(Label label);
  void trackServiceForRespawn(Label label, bool flag);
  // Asked by nobody inside; kept as a query.
  bool isServiceBeingTrackedForRespawn(Label label) const;
  void trackServiceForUserClientShutdownRequest(Label label, bool flag);
  bool isServiceBeingTrackedForUserClientShutdownRequest(Label label) const;
  void handleServiceDidStartNotification(const platform::DistributedNotification& notification);
  // The installer begins: stops these services and evaluates nothing until it has finished. False
  // if any of them could not be stopped. What is no string is no label.
  bool shutdownServices(const platform::Array& labels);

  // Kernel extensions.

  // Loads and configures those of the service that are not known to be, all that it can. Whether
  // that were all.
  bool startAssociatedSystemExtensions(const std::string& label);
  // Loads one as far as it is not, and configures it. Where it has to be unloaded for that, the
  // services that use it are stopped and evaluated again 5 seconds later.
  bool loadKextWithIdentifier(const std::optional<std::string>& identifier,
                              const std::string& kextName, const platform::Array& withOptions);
  // Connected to an extension's control; null where that can't be done.
  std::unique_ptr<platform::ControlSocket> createControlSocketWithIdentifier(
      std::string_view controlName);
  std::set<std::string> daemonsUsingKext(const std::string& kextName) const;
  // For the operator: the catalogue's extensions by name, each a dictionary with keys of
  // OperatorFacts.h.
  // Blocks for a second at most for an extension that does not accept connections.
  platform::Dictionary systemExtensions() const;

  // Requests of the user interface.

  // The catalogue's "Services".
  platform::Value services() const;
  // Nil where there is no process, and no end yet.
  platform::Value pidForService(Label label);
  platform::Value lastExitStatusForService(Label label);
  void stopServices(const platform::Array& labels);
  void startServices(const platform::Array& labels);
  // From now on the client is told what happens to the services, until it fails to hear it.
  void registerClient(std::shared_ptr<const platform::NSProxy> client);
  // What clients are told of a service: its process runs and is watched, or has ended.
  static constexpr std::int64_t kJobRuns = 1;
  static constexpr std::int64_t kJobHasEnded = 0;
  // Tells every client, which gets the process only where it runs.
  void notifyClientsOfService(Label label, std::int64_t withJobStatusChange, std::int64_t andPID);

  // What the operator is told. Nothing changes by asking; see OperatorFacts.h.

  platform::Value operatorOverview() const;
  // Nil for a label that no service has, of whatever product. Asks the job host, which blocks for
  // its time at most, and each settings server of the service's switches for two seconds at most.
  platform::Value operatorFactsOfService(std::string_view label) const;
  // The facts of the jobs of those of the labels that are this product's services, by label.
  platform::Value operatorJobsOfServices(const platform::Array& labels) const;

  // The per-run secret, for whoever has been authenticated.
  platform::Value retrieveKey() const { return secret_; }

  // The servers' messages, by their selectors.
  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

  // Both servers that speak to the product's own programs let in whom the authenticator lets in.
  bool connection(platform::NSConnection& parent,
                  platform::NSConnection& shouldMakeNewConnection) override;
  platform::Data authenticationDataForComponents(const platform::Array& components) override;
  bool authenticateComponents(const platform::Array& components,
                              const platform::Data& withData) override;

  // Properties.

  // By label; see MonitoringRecord.h.
  const platform::Dictionary& monitoredProcessesInfo() const { return monitoredProcessesInfo_; }
  void setMonitoredProcessesInfo(platform::Dictionary info) {
    monitoredProcessesInfo_ = std::move(info);
  }
  // Kept empty: the run loop alone has the sources.
  const platform::Dictionary& monitoredProcessesRunLoopSources() const {
    return monitoredProcessesRunLoopSources_;
  }
  // Kept empty.
  const platform::Dictionary& serviceToFeatureNotificationMap() const {
    return serviceToFeatureNotificationMap_;
  }
  // By prefix; null where making the client failed.
  using ConfigurationClients = std::map<std::string, std::unique_ptr<SettingsClient>>;
  const std::optional<ConfigurationClients>& configurationClients() const {
    return configurationClients_;
  }
  const platform::Value& serviceInfo() const { return serviceInfo_; }
  void setServiceInfo(platform::Value serviceInfo) { serviceInfo_ = std::move(serviceInfo); }
  const std::optional<std::string>& product() const { return product_; }
  std::int64_t operatingMode() const { return operatingMode_; }
  void setOperatingMode(std::int64_t mode) { operatingMode_ = mode; }
  const std::vector<std::shared_ptr<const platform::NSProxy>>& userClients() const {
    return userClients_;
  }
  const platform::Value& secret() const { return secret_; }
  void setSecret(platform::Value secret) { secret_ = std::move(secret); }
  const std::set<std::string>& kextsLoaded() const { return kextsLoaded_; }
  void setKextsLoaded(std::set<std::string> names) { kextsLoaded_ = std::move(names); }
  ServiceHealth* healthInfo() const { return healthInfo_.get(); }
  void setHealthInfo(std::unique_ptr<ServiceHealth> info) { healthInfo_ = std::move(info); }
  void setPrimaryServiceNotificationClient(std::unique_ptr<VantorDistantObject> client) {
    primaryServiceNotificationClient_ = std::move(client);
  }
  KLXConnectionAuthenticator* connectionAuthenticator() const {
    return connectionAuthenticator_.get();
  }
  const std::shared_ptr<platform::NSConnection>& installerConnection() const {
    return installerConnection_;
  }
  const std::shared_ptr<platform::NSConnection>& userInterfaceConnection() const {
    return userInterfaceConnection_;
  }
  // Spelled so.
  const std::shared_ptr<platform::NSConnection>& deamonConnection() const {
    return deamonConnection_;
  }
  const std::shared_ptr<platform::NSConnection>& operatorConnection() const {
    return operatorConnection_;
  }
  // Null where the system is too old for them.
  const std::shared_ptr<ORBServiceManagerXPCHandler>& xpcHandler() const { return xpcHandler_; }
  const std::shared_ptr<ORBExecInfoHandler>& execHandler() const { return execHandler_; }
  const std::shared_ptr<platform::NSXPCListener>& xpcListener() const { return xpcListener_; }
  const std::shared_ptr<platform::NSXPCListener>& execHandlerXPCListener() const {
    return execHandlerXPCListener_;
  }
  const platform::RunLoopHandle* watchDog() const { return watchDog_.get(); }
  // Also one that has fired in another mode than the normal one.
  const platform::RunLoopHandle* globalSettingsDidChangeEffectTimer() const {
    return globalSettingsDidChangeEffectTimer_.get();
  }
  const platform::RunLoopHandle* reevaluationTimer() const { return reevaluationTimer_.get(); }

 private:
  // Start-up, in its order. A step that fails has logged and announced why.
  bool makeSecret();
  void logOwner() const;
  bool acquireAuthorization();
  bool checkOwnIntegrity();
  bool readCatalogue();
  bool readProduct();
  bool selectServices();
  void observeServices();
  void makeMonitoringRecords();
  void observeSettings();
  void makePrimaryServiceClient();
  void evaluateForTheFirstTime();
  void vendServers();
  void vendOperatorServer();
  // A server by that name, whose clients may send `target` what the protocol has.
  std::shared_ptr<platform::NSConnection> vend(
      const char* name, const char* protocol, platform::NSConnectionDelegate& delegate,
      platform::MessageReceiver& target, std::shared_ptr<platform::NSProtocolChecker>& rootObject);
  void vendXPCListeners();
  void endXPCListeners();
  void announceStartUpError(std::string_view error, std::string_view description);

  bool isPrimaryServiceUp();
  std::string primaryLabel() const;
  bool isTracked(Label label, std::string_view mark) const;
  void track(Label label, std::string_view mark, bool flag);
  void evaluateFeatureService(const std::string& label);
  // Whether a switch of the feature asks for the service to run.
  bool evaluateFeature(const std::string& label, const std::string& feature);
  // Whether the switch asks for the service to run, which it is made to do then.
  bool evaluateSwitch(const std::string& label, const std::string& feature, const std::string& key,
                      const platform::Value& expected, SettingsClient* client);
  std::unique_ptr<SettingsClient> makeSettingsClient(const std::string& selector);
  void decideAnew();
  void endWhatWasToBeStopped();
  // A job that runs or has been submitted.
  struct EnforcedJob {
    platform::Value dictionary;
    bool extensionsAreConfigured = false;
  };
  // Nothing where the service can't be left or made running; it has been reported unready then.
  std::optional<EnforcedJob> checkRunningService(const std::string& label,
                                                 const platform::Value& jobInfo,
                                                 const platform::Value& known);
  std::optional<EnforcedJob> startStoppedService(const std::string& label,
                                                 const platform::Value& known);
  struct KextLoad;
  KextLoadingOutcome loadKextThroughState(KextLoadingState state, KextLoad& load);
  KextLoadingOutcome connectKext(KextLoad& load);
  KextLoadingOutcome configureKext(KextLoad& load);
  KextLoadingOutcome unloadKext(KextLoad& load);
  bool unloadKextWithIdentifier(const std::optional<std::string>& identifier);
  platform::Dictionary factsOfKext(const std::string& name,
                                   const std::optional<std::string>& identifier) const;
  bool isProgramSound(const platform::Value& jobInfo) const;
  std::optional<platform::ProcessId> awaitProcess(std::string_view label);
  bool armExitWatch(std::string label, platform::ProcessId process);
  platform::Value copyJobDictionary(std::string_view label) const;
  void addOperatingFacts(platform::Dictionary& facts) const;
  void addMarksOfService(platform::Dictionary& facts, std::string_view label) const;
  void addProgramFacts(platform::Dictionary& facts, std::string_view label) const;
  void addJobFacts(platform::Dictionary& facts, std::string_view label) const;
  void addSwitches(platform::Dictionary& facts, const platform::Value& features) const;
  // What is left of the time that each source gets to answer for these facts.
  using SourceTimes = std::map<std::string, platform::Duration>;
  platform::Value switchFacts(const platform::Value& feature, const platform::Value& source,
                              const std::string& key, const platform::Value& expected,
                              SourceTimes& left) const;
  void performAfterDelay(platform::Duration delay, platform::RunLoop::Callback call) {
    delayedCalls_.perform(std::move(call), delay);
  }

  static constexpr platform::Duration kWatchDogInterval = std::chrono::seconds(900);

  const ServiceManagerPlatform platform_;
  const ORBSigningValidator validator_;

  std::unique_ptr<platform::AuthorizationRef> authRef_;
  platform::Dictionary monitoredProcessesInfo_;
  platform::Dictionary monitoredProcessesRunLoopSources_;
  std::optional<ConfigurationClients> configurationClients_;  // Made on first use.
  platform::Value serviceInfo_;
  // Which the catalogue has and this product has not: label to the products that have it. Only for
  // the operator, who may wonder why such a service does not run.
  platform::Dictionary otherProductsServices_;
  platform::Dictionary serviceToFeatureNotificationMap_;
  std::unique_ptr<KLXConnectionAuthenticator> connectionAuthenticator_;
  // Each server's root object; shared with its connections.
  std::shared_ptr<platform::NSProtocolChecker> installerInterface_;
  std::shared_ptr<platform::NSProtocolChecker> userInterface_;
  std::shared_ptr<platform::NSProtocolChecker> deamonProxy_;
  std::shared_ptr<platform::NSProtocolChecker> operatorInterface_;
  std::shared_ptr<platform::NSConnection> installerConnection_;
  std::shared_ptr<platform::NSConnection> userInterfaceConnection_;
  std::shared_ptr<platform::NSConnection> deamonConnection_;
  ORBServiceManagerOperatorServer operatorServer_{*this};
  std::shared_ptr<platform::NSConnection> operatorConnection_;
  // Shared with their connections.
  std::shared_ptr<ORBServiceManagerXPCHandler> xpcHandler_;
  std::shared_ptr<ORBExecInfoHandler> execHandler_;
  std::shared_ptr<platform::NSXPCListener> xpcListener_;
  std::shared_ptr<platform::NSXPCListener> execHandlerXPCListener_;
  std::optional<std::string> product_;
  std::unique_ptr<VantorDistantObject> primaryServiceNotificationClient_;
  std::int64_t operatingMode_ = ORBOperatingModeNormal;
  // The mode does not tell: the end of the primary service, which may be what is installed, ends
  // it.
  bool isInstallerAtWork_ = false;
  // In the order of registration. Shared with whoever else speaks to the same object.
  std::vector<std::shared_ptr<const platform::NSProxy>> userClients_;
  platform::Value secret_;
  std::set<std::string> kextsLoaded_;
  std::unique_ptr<ServiceHealth> healthInfo_;

  std::vector<std::unique_ptr<platform::DistributedNotificationCenter::Observation>> observations_;
  std::unique_ptr<platform::RunLoopHandle> watchDog_;
  platform::Instant watchDogStart_;
  std::unique_ptr<platform::RunLoopHandle> globalSettingsDidChangeEffectTimer_;
  platform::Instant settingsEvaluationDue_;
  std::unique_ptr<platform::RunLoopHandle> reevaluationTimer_;
  platform::Instant reevaluationDue_;
  platform::DelayedCalls delayedCalls_;
  // When which service is stopped, by its label; in the order of the evaluations that decided so.
  std::multimap<std::string, platform::Instant, std::less<>> dueShutdowns_;
  // Each ends when its process has. A service that was stopped and started again may have two.
  struct ExitWatch {
    std::string label;
    platform::ProcessId process;
    std::unique_ptr<platform::RunLoopHandle> handle;
  };
  std::list<ExitWatch> exitWatches_;
};
