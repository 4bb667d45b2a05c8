#include "ServiceManager/ServiceManager/ORBServiceManager.h"

#include <array>
#include <chrono>
#include <utility>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/RandomNumber.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/MonitoringRecord.h"
#include "ServiceManager/ServiceManager/PathComponents.h"
#include "ServiceManager/ServiceManager/ProductTypes.h"
#include "ServiceManager/ServiceManager/Protocols.h"

using namespace platform;

namespace {

constexpr std::size_t kSecretSize = 8;
constexpr Duration kFirstEvaluationDelay = std::chrono::milliseconds(100);

constexpr char kInstallerServer[] = "com.vantor.servicemanager.installer.server";
constexpr char kUserInterfaceServer[] = "com.vantor.servicemanager.userinterface.server";
constexpr char kAuthServer[] = "com.vantor.common.servicemanager.auth";
constexpr char kOperatorServer[] = "com.vantor.servicemanager.operator.server";
constexpr char kConfigurationStatusServer[] = "com.vantor.service.configd.status";

constexpr char kServerDidStart[] = "com.vantor.servicemanager.notification.serverdidstart";
constexpr char kServerDidStartError[] =
    "com.vantor.servicemanager.notification.serverdidstartError";
constexpr char kConfigurationServerDidStart[] = "com.vantor.notification.configd.didstart";
constexpr char kConfigurationServerWillShutdown[] = "com.vantor.notification.configd.willshutdown";
constexpr char kSettingsDidChange[] = "KLXGlobalSettingsDidChangeNotification";

// A dictionary, or nil; why it could not be had is in the log.
Value dictionaryAtPath(FileReader& files, const std::string& path) {
  const auto list = files.propertyListAtPath(path);
  if (list && list->dictionary()) return *list;
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     list ? path + ": expected a dictionary" : describe(list.error()));
  return {};
}

}  // namespace

ORBServiceManager::ORBServiceManager(const ServiceManagerPlatform& platform)
    : platform_(platform), validator_(platform_.codeSignatures), delayedCalls_(platform_.runLoop) {}

ORBServiceManager::~ORBServiceManager() {
  if (platform_.observeJobHostReturn) platform_.observeJobHostReturn({});
  endXPCListeners();
  // Their delegate and their root objects' target ends here.
  for (const auto& server :
       {installerConnection_, userInterfaceConnection_, deamonConnection_, operatorConnection_}) {
    if (server) server->invalidate();
  }
}

void ORBServiceManager::backgroundServiceDidFinishLaunching(const Value& /*notification*/) {
  vantorlogger2_open(kClassName, mach_thread_self());
  if (!makeSecret()) return;
  logOwner();
  if (!acquireAuthorization() || !checkOwnIntegrity() || !readCatalogue() || !readProduct() ||
      !selectServices()) {
    return;
  }
  observeServices();
  makeMonitoringRecords();
  observeSettings();
  makePrimaryServiceClient();
  watchDogStart_ = platform_.runLoop.now();
  watchDog_ = platform_.runLoop.startTimer(kWatchDogInterval, RunLoop::Repeat::kEvery, [this] {
    evaluateWaitingForPrimaryServiceOperatingMode();
  });
  evaluateForTheFirstTime();
  vendServers();
  vendXPCListeners();
  platform_.distributedCenter.postNotificationName(kServerDidStart, std::nullopt, {},
                                                   NSNotificationPosting::kPostToAllSessions);
  if (healthInfo_) healthInfo_->setReadyToReport(true);
  vendOperatorServer();
}

void ORBServiceManager::backgroundServiceWillTerminate(const Value& /*notification*/) {
  // The services stay with the job host.
  monitoredProcessesInfo_ = {};
  serviceToFeatureNotificationMap_ = {};
  if (healthInfo_) healthInfo_->setReadyToReport(false);
  vantorlogger2_close(mach_thread_self());
}

bool ORBServiceManager::makeSecret() {
  Data bytes(kSecretSize);
  if (!generateRandomNumber(platform_.randomDevice, bytes)) {
    vantorlogger2_line(
        ASL_LEVEL_ERR,
        "Service Manager is unable to continue because it can't initialize the kexts");
    return false;
  }
  secret_ = std::move(bytes);
  kextsLoaded_.clear();
  return true;
}

void ORBServiceManager::logOwner() const {
  const ProcessOwner& owner = platform_.owner;
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("real UID: %d | effective UID: %d",
                                                       owner.realUser, owner.effectiveUser));
  // The effective user stands in both lines, on purpose: readers of the log expect it there.
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("real GID: %d | effective GID: %d",
                                                       owner.realGroup, owner.effectiveUser));
}

bool ORBServiceManager::acquireAuthorization() {
  auto created = platform_.authorization.AuthorizationCreate(kAuthorizationFlagDefaults);
  // Whoever does the work looks at us again with each job.
  if (!created) return true;
  authRef_ = std::move(*created);
  constexpr std::array<std::string_view, 1> kRights{kSMRightModifySystemDaemons};
  const OSStatus status = platform_.authorization.AuthorizationCopyRights(
      *authRef_, kRights, kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize);
  if (status == errAuthorizationSuccess) return true;
  vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Copy Rights Unsuccessful: %d", status));
  announceStartUpError("Authorization failure",
                       "Unable to acquire the correct rights to run background services");
  return false;
}

bool ORBServiceManager::checkOwnIntegrity() {
  if (validator_.validateBundle(platform_.mainBundle.path()).isIntact) return true;
  vantorlogger2_line(
      ASL_LEVEL_ERR,
      "Internal inconsistency! The service manager bundle appears to have been tampered with\n "
      "Service Manager is going into limbo");
  announceStartUpError("Internal inconsistency",
                       "The service manager bundle appears to have been tampered with");
  return false;
}

bool ORBServiceManager::readCatalogue() {
  serviceInfo_ = dictionaryAtPath(
      platform_.files,
      pathByAppendingComponent(platform_.mainBundle.resourcePath(), "Service.plist"));
  if (!primaryServiceInfo(serviceInfo_).isNil()) return true;
  vantorlogger2_line(ASL_LEVEL_ERR,
                     "Malformed configuration file. Unable to resolve primary service information");
  announceStartUpError("Malformed Configuration", "Unable to resolve primary service information");
  return false;
}

bool ORBServiceManager::readProduct() {
  const std::string* programPath = serviceInfo_["ProgramPath"].string();
  const std::string* file = serviceInfo_["ProductInfo"].string();
  const Value information =
      programPath && file
          ? dictionaryAtPath(platform_.files, pathByAppendingComponent(*programPath, *file))
          : Value();
  if (information.isNil()) {
    vantorlogger2_line(ASL_LEVEL_ERR,
                       "Malformed configuration file. Unable to resolve product information");
    announceStartUpError("Malformed Configuration", "Unable to resolve product information");
    return false;
  }
  healthInfo_.reset();
  const std::string* key = serviceInfo_["ProductInfoKey"].string();
  const std::string* guid = key ? information[*key].string() : nullptr;
  const ProductType* type = guid ? productTypeForGuid(*guid) : nullptr;
  if (!type) {
    vantorlogger2_line(ASL_LEVEL_ERR, "Uknown product type. Unable to resolve GUID");
    announceStartUpError("Unkown product type", "Unable to resolve GUID");
    return false;
  }
  product_ = type->installTypeName;
  if (type->keepsHealthInfo && platform_.makeHealthInfo) healthInfo_ = platform_.makeHealthInfo();
  return true;
}

bool ORBServiceManager::selectServices() {
  Dictionary matching = servicesOfProduct(serviceInfo_["Services"], *product_);
  if (matching.empty()) {
    const std::string why =
        stringWithFormat("Unable to resolve services that match the current product: %@", product_);
    vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Cannot resolve product services. %@", why));
    announceStartUpError("Uknown product type", why);
    return false;
  }
  otherProductsServices_ = {};
  for (const auto& [label, entry] : *serviceInfo_["Services"].dictionary()) {
    if (!matching.contains(label)) otherProductsServices_.set(label, entry["Products"]);
  }
  Dictionary catalogue = *serviceInfo_.dictionary();
  catalogue.set("Services", std::move(matching));
  serviceInfo_ = std::move(catalogue);
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
    } else if (serviceTypeForLabel(label, serviceInfo_) == kFeatureService) {
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
  monitoredProcessesInfo_ = {};
  serviceToFeatureNotificationMap_ = {};
  const Value services = this->services();
  for (const auto& [label, entry] : *services.dictionary()) {
    monitoredProcessesInfo_.set(label, initialMonitoringRecord());
  }
  monitoredProcessesRunLoopSources_ = {};
}

void ORBServiceManager::observeSettings() {
  operatingMode_ = ORBOperatingModeNormal;
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
  observations_.push_back(
      platform_.distributedCenter.observeReturn([this] { handleNotificationsReturn(); }));
  if (platform_.observeJobHostReturn)
    platform_.observeJobHostReturn([this] { handleJobHostReturn(); });
}

void ORBServiceManager::makePrimaryServiceClient() {
  const VantorDistantObject::Environment environment{
      platform_.runLoop,           platform_.connections,
      platform_.distributedCenter, platform_.notificationCenter,
      platform_.protocols,         platform_.system};
  primaryServiceNotificationClient_ = std::make_unique<VantorDistantObject>(
      environment, kConfigurationStatusServer, kORBServiceManagerConfigurationServerStatusProtocol,
      kConfigurationServerDidStart);
}

void ORBServiceManager::evaluateForTheFirstTime() {
  if (isPrimaryServiceUp()) {
    operatingMode_ = ORBOperatingModeNormal;
    performAfterDelay(kFirstEvaluationDelay, [this] { evaluateSystemConfiguration(); });
    return;
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Evaluating primary service");
  operatingMode_ = ORBOperatingModeWaitingForPrimaryService;
  enforceRunningForService(primaryLabel(), nullptr);
}

void ORBServiceManager::vendServers() {
  userClients_.clear();
  connectionAuthenticator_ = std::make_unique<KLXConnectionAuthenticator>(platform_.system);
  installerConnection_ = vend(kInstallerServer, kORBServiceManagerInstallerProtocol, *this, *this,
                              installerInterface_);
  userInterfaceConnection_ = vend(kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol,
                                  *this, *this, userInterface_);
  deamonConnection_ = vend(kAuthServer, kServiceManagerAuthProtocol, *connectionAuthenticator_,
                           *this, deamonProxy_);
}

// After the start has been announced: none of its steps depends on who looks on.
void ORBServiceManager::vendOperatorServer() {
  operatorConnection_ = vend(kOperatorServer, kORBServiceManagerOperatorProtocol,
                             *connectionAuthenticator_, operatorServer_, operatorInterface_);
}

std::shared_ptr<NSConnection> ORBServiceManager::vend(
    const char* name, const char* protocol, NSConnectionDelegate& delegate, MessageReceiver& target,
    std::shared_ptr<NSProtocolChecker>& rootObject) {
  auto connection = platform_.connections.makeConnection();
  rootObject = std::make_shared<NSProtocolChecker>(&target, platform_.protocols.find(protocol));
  connection->setDelegate(&delegate);
  // A name that can't be had is the connection's to log; the other servers go on.
  connection->registerName(name);
  connection->setRootObject(rootObject);
  return connection;
}

void ORBServiceManager::announceStartUpError(std::string_view error, std::string_view description) {
  platform_.distributedCenter.postNotificationName(
      kServerDidStartError, std::nullopt,
      Dictionary{{"Error", error}, {"Description", description}},
      NSNotificationPosting::kPostToAllSessions);
}
