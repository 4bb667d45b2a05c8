#include "ServiceManager/ServiceManager/ORBServiceManager.h"

#include <chrono>
#include <map>
#include <utility>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/RandomNumber.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/SystemFacts/CurrentUser.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/InstalledCatalogue.h"
#include "ServiceManager/ServiceManager/Protocols.h"

using namespace platform;

namespace {

constexpr std::size_t kSecretSize = 8;
constexpr Duration kFirstEvaluationDelay = std::chrono::milliseconds(100);
// The start waits so long for a bus that is there to confirm the observers.
constexpr Duration kBusTime = std::chrono::seconds(2);

constexpr char kConfigurationStatusServer[] = "com.vantor.service.configd.status";

constexpr char kServerDidStart[] = "com.vantor.servicemanager.notification.serverdidstart";
constexpr char kServerDidStartError[] =
    "com.vantor.servicemanager.notification.serverdidstartError";
constexpr char kConfigurationServerDidStart[] = "com.vantor.notification.configd.didstart";
constexpr char kConfigurationServerWillShutdown[] = "com.vantor.notification.configd.willshutdown";
constexpr char kSettingsDidChange[] = "KLXGlobalSettingsDidChangeNotification";

}  // namespace

// The extensions stop services, and the enforcement of services starts extensions. This cycle is
// closed here.
ORBServiceManager::ORBServiceManager(const ServiceManagerPlatform& platform)
    : platform_(platform),
      validator_(platform_.codeSignatures),
      settings_({.worker = platform_.settingsWorker,
                 .onMain = [&loop = platform_.runLoop](
                               RunLoop::Callback callback) { loop.post(std::move(callback)); },
                 .now = [&loop = platform_.runLoop] { return loop.now(); },
                 .onRestart = [this] { globalSettingsServerDidRestart(); }}),
      lastUser_(std::make_shared<LastLoggedInUser>(platform_.withSettingsOfThisThread)),
      mainThreadWork_(std::make_shared<MainThreadWork>(platform_.runLoop)),
      userClients_(platform.owner.effectiveUser,
                   [this](std::uint32_t user) { return platform_.xpc.mayLog(user); }),
      events_(std::make_shared<OperatorEvents>(platform_.runLoop.wallTime())),
      turns_(platform_.runLoop,
             [this] {
               noticeUnreadyServices();
               operatorPublisher_.changed();
               takeOver_.continueIfQuiet();
             }),
      jobs_(platform_.jobs, platform_.authorization, [this] { operatorPublisher_.changed(); }),
      exits_(platform_.runLoop, platform_.exitWatcher, jobs_, records_,
             {.onWatch =
                  [this](const std::string& label, ProcessId process) {
                    notifyClientsOfService(label, UserInterfaceClients::kJobRuns, process);
                    operatorPublisher_.changed();
                  },
              .onEnd =
                  [this](const std::string& label, ProcessId process) {
                    ORBExitNoteKQueueCallBack({this, label}, process);
                  }}),
      extensions_({.runLoop = platform_.runLoop,
                   .onWorker = platform_.onExtensionWorker,
                   .loads = {platform_.workersExtensions, platform_.system, platform_.files,
                             platform_.mainBundle},
                   .catalogue = catalogue_,
                   .secret = secret_,
                   .stopService =
                       [this](const std::string& label, ExtensionControl::Done done) {
                         enforcement_.stopForExtension(label, std::move(done));
                       },
                   .evaluateLater =
                       [this](const std::string& label, Duration delay) {
                         timers_.performAfterDelay({"evaluate", label}, delay, [this, label] {
                           evaluateInformationForService(label);
                         });
                       },
                   .onEnd =
                       [this](const std::string& name, std::string_view failedStep) {
                         tellOperator({.kind = OperatorEvent::Kind::kExtension,
                                       .subject = name,
                                       .step = failedStep});
                         operatorPublisher_.changed();
                       }}),
      rechecks_(platform_.runLoop, [this](const std::string& label) { checkProgramAgain(label); }),
      enforcement_({.runLoop = platform_.runLoop,
                    .mainThreadWork = *mainThreadWork_,
                    .turns = turns_,
                    .catalogue = catalogue_,
                    .jobs = jobs_,
                    .records = records_,
                    .exits = exits_,
                    .extensions = extensions_,
                    .health = healthInfo_,
                    .files = platform_.files,
                    .system = platform_.system,
                    .validator = validator_,
                    .onUnready = [this] { scheduleReevaluation(); },
                    .rechecks = rechecks_,
                    .onUnsupported = [this] { noticeUnreadyServices(); },
                    .onActivity = [this] { operatorPublisher_.changed(); }}),
      timers_(platform_.runLoop, [this] { operatorPublisher_.changed(); }),
      ownIntegrity_({.runLoop = platform_.runLoop,
                     .timers = timers_,
                     .validator = validator_,
                     .bundlePath = platform_.mainBundle.path(),
                     .onIntact = [this] { finishLaunching(); },
                     .announceError =
                         [this](std::string_view error, std::string_view description) {
                           announceStartUpError(error, description);
                         }}),
      features_({.catalogue = catalogue_,
                 .settings = settings_,
                 .timers = timers_,
                 .mayEvaluate =
                     [this](const std::string& label) {
                       return permissionToEvaluate(label) == EvaluationPermission::kGranted;
                     },
                 .isInNormalMode = [this] { return operatingMode_ == ORBOperatingModeNormal; },
                 .run =
                     [this](const std::string& label) {
                       tellDecision(label, true);
                       enforceRunningForService(label, nullptr);
                     },
                 .shutDown =
                     [this](const std::string& label) {
                       tellDecision(label, false);
                       enforceShutdownForService(label);
                     },
                 .evaluateAgain = [this](const std::string& label) { evaluateInTurn(label); },
                 .onAnswer =
                     [this] {
                       operatorPublisher_.changed();
                       takeOver_.continueIfQuiet();
                     }}),
      takeOver_({.timers = timers_,
                 .enforcement = enforcement_,
                 .isDeciding = [this] { return isDeciding(); },
                 .onEnd = [this] { operatorPublisher_.changed(); }}),
      operatorPublisher_({.runLoop = platform_.runLoop,
                          .pictures = std::make_shared<OperatorPictures>(),
                          .take = [this] { return operatorPicture(); },
                          .health = healthInfo_}),
      changes_(platform_.runLoop, currentEffectiveUserId(),
               [this](std::uint32_t user) { return platform_.xpc.mayLog(user); }),
      installerServer_(*this, changes_),
      userInterfaceServer_(*this, changes_),
      servers_({.runLoop = platform_.runLoop,
                .connections = platform_.connections,
                .distributedCenter = platform_.distributedCenter,
                .protocols = platform_.protocols,
                .system = platform_.system,
                .xpc = platform_.xpc,
                .codeSignatures = platform_.codeSignatures,
                .attributes = platform_.attributes,
                .lastUser = lastUser_,
                .installer = installerServer_,
                .userInterface = userInterfaceServer_,
                .delegate = *this,
                .secret = secret_}) {}

ORBServiceManager::~ORBServiceManager() { platform_.observeJobHostReturn({}); }

void ORBServiceManager::backgroundServiceDidFinishLaunching(const Value& /*notification*/) {
  vantorlogger2_open(kClassName, mach_thread_self());
  if (!makeSecret()) return;
  logOwner();
  acquireAuthorization();
}

void ORBServiceManager::backgroundServiceWhenReady(CompletionBlock ready) {
  if (!isAcquiringAuthorization_) return takeOver_.whenReady(std::move(ready));
  onAcquired_ = std::move(ready);
}

void ORBServiceManager::finishLaunching() {
  if (!readInstalledCatalogue()) return;
  takeOver_.begin();
  observeServices();
  makeMonitoringRecords();
  observeSettings();
  makePrimaryServiceClient();
  timers_.startWatchDog([this] { evaluateWaitingForPrimaryServiceOperatingMode(); });
  if (!platform_.distributedCenter.isAwaitingConfirmation()) return beginWork();
  // The primary service may announce its start between a question and the bus's confirmation, so
  // the confirmation comes first.
  setMode(ORBOperatingModeWaitingForPrimaryService);
  isBusAwaited_ = true;
  timers_.performAfterDelay({"begin without the bus"}, kBusTime, [this] { endWaitForBus(); });
}

void ORBServiceManager::endWaitForBus() {
  if (std::exchange(isBusAwaited_, false)) beginWork();
}

void ORBServiceManager::beginWork() {
  endIdleness();
  evaluateForTheFirstTime();
  userClients_.removeAll();
  // Its thread registers its name meanwhile.
  vendOperatorServer();
  servers_.vendServers();
  servers_.vendXPCListeners();
  // The announcement tells clients that all names are there.
  whenOperatorsNameIsThere([this] { announceStart(); });
}

void ORBServiceManager::whenOperatorsNameIsThere(RunLoop::Callback then) {
  platform_.operatorWorker.perform([&loop = platform_.runLoop, isAlive = std::weak_ptr(isAlive_),
                                    then = std::move(then)]() mutable {
    loop.post([isAlive, then = std::move(then)]() mutable {
      if (!isAlive.expired()) then();
    });
  });
}

void ORBServiceManager::announceStart() {
  platform_.distributedCenter.postNotificationName(kServerDidStart, std::nullopt, {},
                                                   NSNotificationPosting::kPostToAllSessions);
  if (healthInfo_) healthInfo_->setReadyToReport(true);
}

void ORBServiceManager::backgroundServiceWillTerminate(const Value& /*notification*/) {
  // The services stay with the job host.
  records_.reset({});
  serviceToFeatureNotificationMap_ = {};
  if (healthInfo_) healthInfo_->setReadyToReport(false);
  vantorlogger2_close(mach_thread_self());
}

bool ORBServiceManager::makeSecret() {
  Data bytes(kSecretSize);
  if (!generateRandomNumber(platform_.randomDevice, bytes)) {
    vantorlogger2_line(
        ASL_LEVEL_ERR,
        "Service Manager is unable to continue because it can't initialize the kexts",
        {.messageId = kDaemonIdleId});
    goIdle("It has no random bytes for its secret");
    return false;
  }
  secret_ = std::move(bytes);
  extensions_.forgetAll();
  return true;
}

void ORBServiceManager::logOwner() const {
  const ProcessOwner& owner = platform_.owner;
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("real UID: %d | effective UID: %d",
                                                       owner.realUser, owner.effectiveUser));
  // The effective user is in both lines on purpose: readers of the log expect it there.
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("real GID: %d | effective GID: %d",
                                                       owner.realGroup, owner.effectiveUser));
}

void ORBServiceManager::acquireAuthorization() {
  isAcquiringAuthorization_ = true;
  jobs_.acquireRights(
      platform_.onExtensionWorker,
      [&loop = platform_.runLoop](RunLoop::Callback work) { loop.post(std::move(work)); },
      [this](OSStatus status) { authorizationIsAcquired(status); });
}

void ORBServiceManager::authorizationIsAcquired(OSStatus status) {
  isAcquiringAuthorization_ = false;
  if (status == errAuthorizationSuccess) {
    ownIntegrity_.check();
  } else {
    vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Copy Rights Unsuccessful: %d", status),
                       {.messageId = kDaemonIdleId});
    announceStartUpError("Authorization failure",
                         "Unable to acquire the correct rights to run background services");
  }
  if (onAcquired_) takeOver_.whenReady(std::exchange(onAcquired_, nullptr));
}

bool ORBServiceManager::readInstalledCatalogue() {
  const auto announce = [this](const StartUpError& error) {
    announceStartUpError(error.error, error.description, error.cause);
    return false;
  };
  const auto list = readServicePlist(platform_.files, platform_.mainBundle.resourcePath());
  if (!list) return announce(list.error());
  catalogue_ = ServiceCatalogue(*list);  // of all products, until this one is known
  healthInfo_.reset();
  const auto type = readInstalledProduct(platform_.files, *list);
  if (!type) return announce(type.error());
  product_ = (*type)->installTypeName;
  if ((*type)->keepsHealthInfo) healthInfo_ = platform_.makeHealthInfo();
  auto catalogue = catalogueOfProduct(*list, *product_);
  if (!catalogue) return announce(catalogue.error());
  catalogue_ = std::move(*catalogue);
  return true;
}

void ORBServiceManager::observeServices() {
  std::vector<std::string> monitored;
  std::map<std::string, std::string> namesToReport;
  const Value services = this->services();
  for (const auto& [label, entry] : *services.dictionary()) {
    if (const std::string* name = entry["Notification"].string()) {
      observations_.push_back(platform_.distributedCenter.addObserver(
          *name, std::nullopt, [this](const DistributedNotification& notification) {
            handleServiceDidStartNotification(notification);
          }));
    } else if (catalogue_.serviceType(label) == kFeatureService) {
      vantorlogger2_line(ASL_LEVEL_WARNING,
                         stringWithFormat("%@ does not emit startup messages", label));
    }
    monitored.push_back(label);
    const Array* arguments = entry["JobSpec"]["ProgramArguments"].array();
    if (arguments && !arguments->empty() && arguments->front().string()) {
      namesToReport.emplace(label, *arguments->front().string());
    }
  }
  if (!healthInfo_) return;
  healthInfo_->setMonitoredServices(monitored);
  healthInfo_->setServiceNamesToReport(std::move(namesToReport));
}

void ORBServiceManager::makeMonitoringRecords() {
  records_.reset(services());
  serviceToFeatureNotificationMap_ = {};
  monitoredProcessesRunLoopSources_ = {};
}

void ORBServiceManager::observeSettings() {
  setMode(ORBOperatingModeNormal);
  using Handler = void (ORBServiceManager::*)(const DistributedNotification&);
  const auto observe = [this](const char* name, Handler handler) {
    observations_.push_back(platform_.distributedCenter.addObserver(
        name, std::nullopt,
        [this, handler](const DistributedNotification& notification) {
          (this->*handler)(notification);
        },
        NSNotificationSuspensionBehavior::kDeliverImmediately));
  };
  observe(kConfigurationServerDidStart, &ORBServiceManager::handleGlobalSettingsServerDidStart);
  observe(kConfigurationServerWillShutdown,
          &ORBServiceManager::handleGlobalSettingsServerWillShutdown);
  observe(kSettingsDidChange, &ORBServiceManager::handleGlobalSettingsDidChange);
  observations_.push_back(platform_.distributedCenter.observeReturn([this] {
    if (isBusAwaited_) return endWaitForBus();
    handleNotificationsReturn();
  }));
  platform_.observeJobHostReturn([this] { handleJobHostReturn(); });
  jobStarts_ = platform_.jobs.observeStarts([this](std::string_view label, Jobs::Start start) {
    if (start == Jobs::Start::kStarted) return jobHasStarted(std::string(label));
    if (label.starts_with(kExtensionJobPrefix)) {
      return extensions_.programHasChanged(label.substr(kExtensionJobPrefix.size()));
    }
    if (hasService(label)) jobs_.refresh(std::string(label));
    enforcement_.programHasChanged(std::string(label));
  });
  jobs_.refreshAll();  // Later starts are reported.
}

// The work on the service asks the job host itself, and a watched process is known.
void ORBServiceManager::jobHasStarted(const std::string& label) {
  const ServiceActivity activity = enforcement_.activityOf(label);
  const bool isAskedFor =
      activity == ServiceActivity::kIsSubmitted || activity == ServiceActivity::kAwaitsProcess;
  enforcement_.jobHasStarted(label);
  if (hasService(label) && !isAskedFor && !isServiceBeingTrackedForRespawn(label)) {
    jobs_.refresh(label);
  }
}

void ORBServiceManager::makePrimaryServiceClient() {
  settings_.makePrimaryServiceClient(kConfigurationStatusServer,
                                     kORBServiceManagerConfigurationServerStatusProtocol,
                                     kConfigurationServerDidStart);
}

// Evaluates nothing until the configuration server has answered.
void ORBServiceManager::evaluateForTheFirstTime() {
  setMode(ORBOperatingModeWaitingForPrimaryService);
  askWhetherPrimaryServiceIsUp([this](std::optional<bool> isUp) {
    if (isUp == true) {
      setMode(ORBOperatingModeNormal);
      timers_.performAfterDelay({"evaluate"}, kFirstEvaluationDelay,
                                [this] { evaluateSystemConfiguration(); });
      return;
    }
    // Without an answer, the primary service may have announced its end meanwhile.
    if (operatingMode_ != ORBOperatingModeWaitingForPrimaryService) return;
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Evaluating primary service");
    enforceRunningForService(primaryLabel(), nullptr);
  });
}

void ORBServiceManager::announceStartUpError(std::string_view error, std::string_view description,
                                             std::string_view cause) {
  goIdle(cause.empty() ? std::string(description) : stringWithFormat("%@: %@", description, cause));
  // A program that gets the announcement can ask for the reason.
  whenOperatorsNameIsThere(
      [this, facts = Dictionary{{"Error", error}, {"Description", description}}] {
        platform_.distributedCenter.postNotificationName(kServerDidStartError, std::nullopt, facts,
                                                         NSNotificationPosting::kPostToAllSessions);
      });
}
