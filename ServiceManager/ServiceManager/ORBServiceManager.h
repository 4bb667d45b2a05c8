#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/ChangeRequests.h"
#include "ServiceManager/ServiceManager/EvaluationTimers.h"
#include "ServiceManager/ServiceManager/FeatureEvaluation.h"
#include "ServiceManager/ServiceManager/InstallerServer.h"
#include "ServiceManager/ServiceManager/LastLoggedInUser.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/OperatorEvents.h"
#include "ServiceManager/ServiceManager/OperatorPublisher.h"
#include "ServiceManager/ServiceManager/OwnIntegrity.h"
#include "ServiceManager/ServiceManager/ServiceManagerPlatform.h"
#include "ServiceManager/ServiceManager/SettingsEventLimit.h"
#include "ServiceManager/ServiceManager/TakeOver.h"
#include "ServiceManager/ServiceManager/UserInterfaceClients.h"
#include "ServiceManager/ServiceManager/UserInterfaceServer.h"
#include "ServiceManager/ServiceManager/VendedOperatorServer.h"
#include "ServiceManager/ServiceManager/VendedServers.h"
#include "ServiceManager/Settings/SettingsQuestions.h"
#include "ServiceManager/Supervision/ExitMonitor.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/LaunchdJobs.h"
#include "ServiceManager/Supervision/MainThreadWork.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"
#include "ServiceManager/Supervision/ServiceEnforcement.h"
#include "Shared/ORBSigningValidator.h"

class ORBServiceManager;

// The context that an exit watch passes to its callback.
struct ExitNoteContext {
  ORBServiceManager* object = nullptr;
  std::string jobIdentifier;  // the service's label
};

// The end of a watched service's process.
void ORBExitNoteKQueueCallBack(const ExitNoteContext& info, platform::ProcessId process);

// The daemon's one main class. It decides which of the product's services must run: at its start,
// after each exit, each change of the settings and each request of the installer and the user
// interface. It keeps the operating mode, and makes its collaborators do the rest; operations that
// are theirs are forwarded and documented there.
//
// Everything belongs to the main thread and takes no lock. An operation that must wait for the job
// host, a process, a removal or an extension goes on while the run loop serves others, and ends
// with a callback. An operation fails only by its result; failures are logged.
class ORBServiceManager final : public platform::VGBackgroundServiceDelegate,
                                public platform::NSConnectionDelegate {
 public:
  using Label = ::Label;
  static constexpr char kClassName[] = "ORBServiceManager";

  using CompletionBlock = ServiceEnforcement::CompletionBlock;
  using StopAnswer = ServiceEnforcement::StopAnswer;

  explicit ORBServiceManager(const ServiceManagerPlatform& platform);
  ORBServiceManager(const ORBServiceManager&) = delete;
  ORBServiceManager& operator=(const ORBServiceManager&) = delete;
  ~ORBServiceManager() override;

  // Start-up and shut-down. A failure in the first steps of the start leaves the daemon alive but
  // idle; a shut-down stops no service.
  void backgroundServiceDidFinishLaunching(const platform::Value& notification) override;
  // Ready means that the take-over has ended; see TakeOver.h. A daemon that is idle is ready, too.
  void backgroundServiceWhenReady(CompletionBlock ready) override;
  void backgroundServiceWillTerminate(const platform::Value& notification) override;

  // The catalogue's lookups; see CatalogueLookups.h.
  static platform::Dictionary defaultJobInfoTemplate() { return ::defaultJobInfoTemplate(); }
  static platform::Value serviceEntryWithLabel(Label label, const platform::Value& inServicePlist) {
    return ::serviceEntryWithLabel(label, inServicePlist);
  }
  static platform::Value featureEntryWithFeatureName(Label featureName,
                                                     const platform::Value& inServicePlist) {
    return ::featureEntryWithFeatureName(featureName, inServicePlist);
  }
  static platform::Value jobInfoWithLabel(Label label, const platform::Value& inServicePlist) {
    return ::jobInfoWithLabel(label, inServicePlist);
  }
  static std::string_view serviceTypeForLabel(Label label, const platform::Value& inServicePlist) {
    return ::serviceTypeForLabel(label, inServicePlist);
  }
  static platform::Value primaryServiceInfo(const platform::Value& inServicePlist) {
    return ::primaryServiceInfo(inServicePlist);
  }

  // Evaluation: which services must run.

  // The watchdog. While the daemon waits for the primary service, evaluates once that is up; in
  // normal mode, begins to wait if the primary service is down. `then` is called after the primary
  // service has answered, or has not in time.
  void evaluateWaitingForPrimaryServiceOperatingMode(CompletionBlock then = {});
  // In normal mode: makes the primary service run, then evaluates every other service, each in a
  // turn of the loop of its own. A service whose turn is pending is evaluated once.
  void evaluateSystemConfiguration();
  // The same in a later turn of the loop, unless that is pending.
  void evaluateSystemConfigurationLater();
  void evaluateInformationForService(const std::string& label);

  // Changes of the settings, and the other events that make the daemon evaluate again.
  void handleGlobalSettingsServerDidStart(const platform::DistributedNotification& notification);
  void handleGlobalSettingsServerWillShutdown(
      const platform::DistributedNotification& notification);
  void handleGlobalSettingsDidChange(const platform::DistributedNotification& notification);
  // Notices may have been missed: evaluates, unless in installer mode, as if those of the
  // primary service and of a change of the settings had come.
  void handleNotificationsReturn();
  // The job host answers again. Unless in installer mode, this repeats requests that may have
  // failed: it removes services that the user interface has stopped, and evaluates all others.
  void handleJobHostReturn();
  // A settings server was started again.
  void globalSettingsServerDidRestart();
  // The installer has finished. Always true.
  bool evaluateServices();
  void evaluateRunningModeAfterInstallerEvent();
  void scheduleReevaluation();
  // Starts the services that are not ready. The timer is not used; it belongs to the selector.
  void reevaluateConfiguration(const platform::RunLoopHandle* timer);
  void handleServiceDidStartNotification(const platform::DistributedNotification& notification);
  // The process of a watched service has ended.
  void processOfServiceEnded(const std::string& label, platform::ProcessId process);
  // The installer begins: stops these services and evaluates nothing until it has finished. The
  // answer comes when the last of them has ended: false if any of them could not be stopped.
  // Elements that are no labels of the catalogue are ignored.
  void shutdownServices(const platform::Array& labels, StopAnswer answer);
  // For the executable-information service, whose requests share that object. Any thread.
  platform::Value getLastLoggedInUserHomeDirectory() const {
    return lastUser_->getLastLoggedInUserHomeDirectory();
  }

  // Jobs and processes.
  void submitJobRequest(const platform::Value& request, std::string_view forDomain,
                        LaunchdJobs::Done done) {
    jobs_.submitJobRequest(request, forDomain, std::move(done));
  }
  void unloadJobFromLaunchD(const std::string& label, LaunchdJobs::Removed done) {
    jobs_.unloadJobFromLaunchD(label, std::move(done));
  }
  void monitorJobWithIdentifier(Label label, bool retryOnFailure, ExitMonitor::Done done) {
    exits_.monitorJobWithIdentifier(label, retryOnFailure, std::move(done));
  }

  // Enforcing what was decided. Nothing is done for nil.
  bool checkOSSupportForService(const std::string& label) {
    return enforcement_.checkOSSupportForService(label);
  }
  void launchService(const std::string& label, bool firstTime,
                     ServiceEnforcement::LaunchAnswer answer) {
    enforcement_.launchService(label, firstTime, std::move(answer));
  }
  void enforceRunningForService(Label label, CompletionBlock withCompletionBlock);
  void enforceShutdownForService(Label label, StopAnswer answer = {});
  void trackServiceForRespawn(Label label, bool flag) {
    records_.trackServiceForRespawn(label, flag);
  }
  bool isServiceBeingTrackedForRespawn(Label label) const {
    return records_.isServiceBeingTrackedForRespawn(label);
  }
  void trackServiceForUserClientShutdownRequest(Label label, bool flag) {
    records_.trackServiceForUserClientShutdownRequest(label, flag);
  }
  bool isServiceBeingTrackedForUserClientShutdownRequest(Label label) const {
    return records_.isServiceBeingTrackedForUserClientShutdownRequest(label);
  }

  // Kernel extensions.
  void startAssociatedSystemExtensions(const std::string& label, ExtensionControl::Done done) {
    extensions_.startAssociatedSystemExtensions(label, std::move(done));
  }
  void loadKextWithIdentifier(const std::optional<std::string>& identifier,
                              const std::string& kextName, const platform::Array& withOptions,
                              ExtensionControl::Done done) {
    extensions_.loadKextWithIdentifier(identifier, kextName, withOptions, std::move(done));
  }
  std::set<std::string> daemonsUsingKext(const std::string& kextName) const {
    return catalogue_.daemonsUsingKext(kextName);
  }

  // Requests of the user interface. A label that the catalogue does not have is ignored.

  // The catalogue's "Services".
  platform::Value services() const { return catalogue_.services(); }
  // Nil if there is no process, or if no process has ended yet.
  using ValueAnswer = std::move_only_function<void(platform::Value)>;
  void pidForService(Label label, ValueAnswer answer);
  void lastExitStatusForService(Label label, ValueAnswer answer);
  void stopServices(const platform::Array& labels);
  void startServices(const platform::Array& labels);
  void registerClient(std::shared_ptr<const platform::NSProxy> client) {
    userClients_.registerClient(std::move(client));
  }
  void notifyClientsOfService(Label label, std::int64_t withJobStatusChange, std::int64_t andPID);

  // The per-run secret, for a peer that has been authenticated.
  platform::Value retrieveKey() const { return secret_; }

  // The servers that speak to the product's own programs ask the authenticator.
  bool connection(platform::NSConnection& parent,
                  platform::NSConnection& shouldMakeNewConnection) override;
  platform::Data authenticationDataForComponents(const platform::Array& components) override;
  bool authenticateComponents(const platform::Array& components,
                              const platform::Data& withData) override;

  // Properties.

  const platform::Dictionary& monitoredProcessesInfo() const {
    return records_.monitoredProcessesInfo();
  }
  // Kept empty: the run loop alone has the sources.
  const platform::Dictionary& monitoredProcessesRunLoopSources() const {
    return monitoredProcessesRunLoopSources_;
  }
  // Kept empty.
  const platform::Dictionary& serviceToFeatureNotificationMap() const {
    return serviceToFeatureNotificationMap_;
  }
  // The prefixes of the settings servers that evaluations have asked; the clients are the worker's.
  const std::map<std::string, AskedSource>& askedSources() const {
    return settings_.askedSources();
  }
  const platform::Value& serviceInfo() const { return catalogue_.serviceInfo(); }
  const std::optional<std::string>& product() const { return product_; }
  std::int64_t operatingMode() const { return operatingMode_; }
  std::vector<std::shared_ptr<const platform::NSProxy>> userClients() const {
    return userClients_.userClients();
  }
  const platform::Value& secret() const { return secret_; }
  const std::set<std::string>& kextsLoaded() const { return extensions_.kextsLoaded(); }
  ServiceHealth* healthInfo() const { return healthInfo_.get(); }
  const platform::RunLoopHandle* watchDog() const { return timers_.watchDog(); }
  // This includes a timer that has fired in another mode than the normal one.
  const platform::RunLoopHandle* globalSettingsDidChangeEffectTimer() const {
    return timers_.globalSettingsDidChangeEffectTimer();
  }
  const platform::RunLoopHandle* reevaluationTimer() const { return timers_.reevaluationTimer(); }
  // The servers; see VendedServers.h.
  KLXConnectionAuthenticator* connectionAuthenticator() const {
    return servers_.connectionAuthenticator();
  }
  const std::shared_ptr<platform::NSProtocolChecker>& installerInterface() const {
    return servers_.installer().rootObject;
  }
  const std::shared_ptr<platform::NSProtocolChecker>& userInterface() const {
    return servers_.userInterface().rootObject;
  }
  const std::shared_ptr<platform::NSProtocolChecker>& deamonProxy() const {
    return servers_.deamon().rootObject;
  }
  const std::shared_ptr<platform::NSConnection>& installerConnection() const {
    return servers_.installer().connection;
  }
  const std::shared_ptr<platform::NSConnection>& userInterfaceConnection() const {
    return servers_.userInterface().connection;
  }
  const std::shared_ptr<platform::NSConnection>& deamonConnection() const {  // spelled so
    return servers_.deamon().connection;
  }
  const std::shared_ptr<ORBServiceManagerXPCHandler>& xpcHandler() const {
    return servers_.xpcHandler();
  }
  const std::shared_ptr<ORBExecInfoHandler>& execHandler() const { return servers_.execHandler(); }
  const std::shared_ptr<platform::NSXPCListener>& xpcListener() const {
    return servers_.xpcListener();
  }
  const std::shared_ptr<platform::NSXPCListener>& execHandlerXPCListener() const {
    return servers_.execHandlerXPCListener();
  }

  // A picture without the health record, once the operator's server is vended.
  OperatorPicture operatorPicture() const;
  // Whether an evaluation has begun and not decided about every service yet, or anything goes on
  // with one.
  bool isEvaluating() const { return isDeciding() || enforcement_.isWorking(); }
  // Calls `settled` when nothing goes on with these services; see ServiceEnforcement.h. Elements
  // that are no labels of the catalogue are ignored.
  void whenSettled(const platform::Array& labels, CompletionBlock settled);

 private:
  // Start-up, in its order. A step that fails has logged and announced why.
  bool makeSecret();
  void logOwner() const;
  void acquireAuthorization();
  void authorizationIsAcquired(platform::OSStatus status);
  void finishLaunching();
  void endWaitForBus();
  void beginWork();
  void announceStart();
  // Runs `then` when the server of the operator, whose thread makes it, has its name.
  void whenOperatorsNameIsThere(platform::RunLoop::Callback then);
  bool readInstalledCatalogue();
  void observeServices();
  void makeMonitoringRecords();
  void observeSettings();
  void jobHasStarted(const std::string& label);
  void makePrimaryServiceClient();
  void evaluateForTheFirstTime();
  void announceStartUpError(std::string_view error, std::string_view description,
                            std::string_view cause = {});
  // Serves the operator alone.
  void goIdle(std::string why);
  void endIdleness();
  void vendOperatorServer();
  ORBServiceManagerOperatorServer::MainThread operatorsMainThread();
  void refreshUnwatchedJobs();
  void tellOperator(OperatorEvent event);
  void tellDecision(const std::string& label, bool isWanted);

  bool hasService(Label label) const;
  // The elements that are labels of the catalogue, in order.
  std::vector<std::string> knownLabels(const platform::Array& labels) const;

  void setMode(std::int64_t mode);
  // Asks. Nothing is answered if the mode has changed meanwhile.
  void askWhetherPrimaryServiceIsUp(std::move_only_function<void(std::optional<bool> isUp)> answer);
  EvaluationPermission permissionToEvaluate(const std::string& label) const;
  std::string primaryLabel() const { return catalogue_.primaryLabel(); }
  void evaluateOtherServices(const ServiceCatalogue& catalogue, const std::string& primary);
  // Gives the service a turn, unless its turn is pending.
  void evaluateInTurn(const std::string& label);
  // Whether a service waits for its turn or for the answer of a settings server.
  bool isDeciding() const { return turns_.waiting() > 0 || features_.isAsking(); }
  void evaluateAgain(CompletionBlock then);
  void noticeUnreadyServices();
  void removeStoppedServices();
  void checkProgramAgain(const std::string& label);

  const ServiceManagerPlatform platform_;
  const ORBSigningValidator validator_;

  platform::Value secret_;
  ServiceCatalogue catalogue_;
  std::optional<std::string> product_;
  std::int64_t operatingMode_ = ORBOperatingModeNormal;
  std::uint64_t modeChanges_ = 0;
  bool isAcquiringAuthorization_ = false;
  CompletionBlock onAcquired_;  // a request for readiness that has come meanwhile
  bool isBusAwaited_ = false;   // by the start
  // After an announcement of the primary service's start.
  bool isAskedAboutStart_ = false;
  bool hasStartedSince_ = false;
  // The mode does not hold this: the end of the primary service changes the mode, too, and the
  // installer may be replacing that service. The normal mode ends it.
  bool isInstallerAtWork_ = false;
  platform::Dictionary monitoredProcessesRunLoopSources_;
  platform::Dictionary serviceToFeatureNotificationMap_;
  std::unique_ptr<ServiceHealth> healthInfo_;

  SettingsQuestions settings_;
  const std::shared_ptr<LastLoggedInUser> lastUser_;      // shared with requests of other threads
  const std::shared_ptr<MainThreadWork> mainThreadWork_;  // shared with the operator's thread
  UserInterfaceClients userClients_;
  const std::shared_ptr<OperatorEvents> events_;  // shared with the operator's thread
  SettingsEventLimit settingsEvents_;
  std::map<std::string, bool> decisions_;  // the last ones about feature services
  platform::TurnQueue turns_;
  // While an evaluation waits for the primary service, another one need not wait, too.
  std::weak_ptr<void> waitForPrimary_;
  LaunchdJobs jobs_;
  MonitoringRecords records_;
  ExitMonitor exits_;
  ExtensionControl extensions_;
  ProgramRechecks rechecks_;
  ServiceEnforcement enforcement_;
  std::vector<std::unique_ptr<platform::DistributedNotificationCenter::Observation>> observations_;
  std::unique_ptr<platform::RunLoopHandle> jobStarts_;
  EvaluationTimers timers_;
  OwnIntegrity ownIntegrity_;
  FeatureEvaluation features_;
  TakeOver takeOver_;
  std::shared_ptr<const ServiceCatalogue> operatorsCatalogue_;  // shared with the pictures
  OperatorPublisher operatorPublisher_;
  ChangeRequests changes_;
  InstallerServer installerServer_;
  UserInterfaceServer userInterfaceServer_;
  VendedServers servers_;  // ends early: it calls all of the above
  std::optional<VendedOperatorServer> operatorServer_;
  std::optional<std::string> idleReason_;
  // Requests of the operator's thread that come after the end of this object are dropped.
  const std::shared_ptr<int> isAlive_ = std::make_shared<int>();
};
