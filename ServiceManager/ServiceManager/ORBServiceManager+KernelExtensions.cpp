#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/PathComponents.h"
#include "ServiceManager/ServiceManager/VGKextManager.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

using namespace std::chrono_literals;

// The network extension, the one that is asked for its version and may be told the secret.
constexpr std::string_view kNetworkKext = "com.vantor.nke.wfk";
constexpr std::uint32_t kVersionOption = 3;
constexpr std::uint32_t kSecretOption = 5;
constexpr std::int32_t kLatestUnusableVersion = 4;
constexpr std::string_view kSecureOption = "secure";

constexpr char kSystemExtensions[] = "/System/Library/Extensions";
constexpr Duration kUnloadTime = 1s;
constexpr Duration kUnloadPause = 200ms;
constexpr Duration kReloadEvaluationDelay = 5s;

std::optional<std::string> textOf(const Value& value) {
  const std::string* const text = value.string();
  return text ? std::optional(*text) : std::nullopt;
}

bool isRecentEnough(ControlSocket& socket) {
  const auto version = socket.getIntegerOption(kVersionOption);
  return version && version->length >= sizeof version->value &&
         version->value > kLatestUnusableVersion;
}

bool names(const Value& service, const std::string& kextName) {
  const Array* const kexts = service["KernelExtensions"].array();
  return kexts && std::ranges::find(*kexts, Value(kextName)) != kexts->end();
}

}  // namespace

// One extension on its way through the states.
struct ORBServiceManager::KextLoad {
  const std::optional<std::string>& identifier;
  const std::string& name;
  const Array& options;
  std::unique_ptr<ControlSocket> socket = nullptr;  // never kept beyond the end
  std::optional<Instant> deadline = std::nullopt;
  std::set<std::string> stopped = {};  // services that the unloading has cost

  bool isNetworkKext() const { return identifier == kNetworkKext; }
};

bool ORBServiceManager::startAssociatedSystemExtensions(const std::string& label) {
  bool haveAllStarted = true;
  const Value kexts = serviceEntryWithLabel(label, serviceInfo_)["KernelExtensions"];
  if (!kexts.array()) return true;
  for (const Value& kext : *kexts.array()) {
    if (!kext.string() || kextsLoaded_.contains(*kext.string())) continue;
    const std::string name = *kext.string();
    const Value entry = serviceInfo_["KernelExtensions"][name];
    const std::optional<std::string> identifier = textOf(entry["Identifier"]);
    const Value options = entry["Options"];
    if (loadKextWithIdentifier(identifier, name, options.array() ? *options.array() : Array())) {
      kextsLoaded_.insert(name);
      continue;
    }
    haveAllStarted = false;
    vantorlogger2_line(ASL_LEVEL_INFO, stringWithFormat("Failed to load kext '%@'", identifier));
  }
  return haveAllStarted;
}

bool ORBServiceManager::loadKextWithIdentifier(const std::optional<std::string>& identifier,
                                               const std::string& kextName,
                                               const Array& withOptions) {
  using enum KextLoadingState;
  KextLoad load{identifier, kextName, withOptions};
  KextLoadingState state = kConnect;
  while (state != kFailed && state != kDone) {
    state = nextKextLoadingState(state, loadKextThroughState(state, load));
  }
  for (const std::string& label : load.stopped) {
    performAfterDelay(kReloadEvaluationDelay,
                      [this, label] { evaluateInformationForService(label); });
  }
  return state == kDone;
}

KextLoadingOutcome ORBServiceManager::loadKextThroughState(KextLoadingState state, KextLoad& load) {
  switch (state) {
    case KextLoadingState::kConnect:
      return connectKext(load);
    case KextLoadingState::kConfigure:
      return configureKext(load);
    case KextLoadingState::kLoad:
    case KextLoadingState::kReload:
      return platform_.extensions.loader.KextManagerLoadKextWithIdentifier(
                 load.identifier.value_or(""), {})
                 ? KextLoadingOutcome::kSucceeded
                 : KextLoadingOutcome::kFailed;
    case KextLoadingState::kUnload:
      return unloadKext(load);
    case KextLoadingState::kFailed:
    case KextLoadingState::kDone:
      break;
  }
  return KextLoadingOutcome::kFailed;
}

KextLoadingOutcome ORBServiceManager::connectKext(KextLoad& load) {
  load.socket = createControlSocketWithIdentifier(load.identifier.value_or(""));
  if (!load.socket) return KextLoadingOutcome::kFailed;
  if (!load.isNetworkKext() || isRecentEnough(*load.socket)) return KextLoadingOutcome::kSucceeded;
  load.socket.reset();
  return KextLoadingOutcome::kRejected;
}

KextLoadingOutcome ORBServiceManager::configureKext(KextLoad& load) {
  for (const Value& option : load.options) {
    if (option != Value(kSecureOption) || !load.isNetworkKext()) continue;
    const Data* const secret = secret_.data();
    if (secret && load.socket->setOption(kSecretOption, *secret)) continue;
    load.socket.reset();
    return KextLoadingOutcome::kRejected;
  }
  return KextLoadingOutcome::kSucceeded;
}

KextLoadingOutcome ORBServiceManager::unloadKext(KextLoad& load) {
  RunLoop& loop = platform_.runLoop;
  if (!load.deadline) load.deadline = loop.now() + kUnloadTime;
  // At every try: a service may have been started meanwhile.
  load.stopped = daemonsUsingKext(load.name);
  for (const std::string& label : load.stopped) enforceShutdownForService(label);
  if (unloadKextWithIdentifier(load.identifier)) return KextLoadingOutcome::kSucceeded;
  if (loop.now() > *load.deadline) {
    vantorlogger2_line(ASL_LEVEL_ERR,
                       stringWithFormat("Unable to unload kext '%@'.", load.identifier));
    return KextLoadingOutcome::kFailed;
  }
  loop.sleepFor(kUnloadPause);
  return KextLoadingOutcome::kNotYet;
}

bool ORBServiceManager::unloadKextWithIdentifier(const std::optional<std::string>& identifier) {
  const KernelExtensionsPlatform& extensions = platform_.extensions;
  if (NSProcessInfo::Extensions::isMacOSX7OrAbove(&platform_.system)) {
    return extensions.loader.KextManagerUnloadKextWithIdentifier(identifier.value_or(""))
        .has_value();
  }
  if (!identifier) return false;
  const std::string inSystem = pathByAppendingComponent(
      pathByAppendingComponent(extensions.root, kSystemExtensions), *identifier);
  std::vector<std::string> arguments;
  if (platform_.files.fileExistsAtPath(*identifier)) {
    arguments = {*identifier};
  } else if (const auto ours = platform_.mainBundle.pathForResource(*identifier, "kext")) {
    arguments = {*ours};
  } else if (platform_.files.fileExistsAtPath(inSystem)) {
    arguments = {inSystem};
  } else {
    arguments = {"-b", *identifier};
  }
  return VGKextManagerExecuteKextCommand(extensions.tasks, extensions.root, arguments);
}

std::unique_ptr<ControlSocket> ORBServiceManager::createControlSocketWithIdentifier(
    std::string_view controlName) {
  auto socket = platform_.extensions.controls.openControlSocket();
  if (!socket || !(*socket)->findControl(platform::controlName(controlName))) return nullptr;
  if (!(*socket)->connect()) {
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Unable to establish connection with the Generic kext");
    return nullptr;
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Connected to Generic Kext");
  return *std::move(socket);
}

std::set<std::string> ORBServiceManager::daemonsUsingKext(const std::string& kextName) const {
  std::set<std::string> labels;
  const Value services = serviceInfo_["Services"];
  if (!services.dictionary()) return labels;
  for (const auto& [label, service] : *services.dictionary()) {
    if (names(service, kextName)) labels.insert(label);
  }
  return labels;
}

Dictionary ORBServiceManager::systemExtensions() const {
  Dictionary facts;
  const Value kexts = serviceInfo_["KernelExtensions"];
  if (!kexts.dictionary()) return facts;
  for (const auto& [name, entry] : *kexts.dictionary()) {
    facts.set(name, factsOfKext(name, textOf(entry["Identifier"])));
  }
  return facts;
}

Dictionary ORBServiceManager::factsOfKext(const std::string& name,
                                          const std::optional<std::string>& identifier) const {
  Dictionary facts{{kFactKextIsConfigured, kextsLoaded_.contains(name)}};
  Array services;
  for (const std::string& label : daemonsUsingKext(name)) services.push_back(Value(label));
  facts.set(kFactKextServices, std::move(services));
  if (!identifier) return facts;
  KernelExtensions& loader = platform_.extensions.loader;
  facts.set(kFactKextIdentifier, *identifier);
  const auto path = loader.KextManagerCreateURLForBundleIdentifier(*identifier);
  if (path) facts.set(kFactKextPath, *path);
  if (const auto authentic = loader.OSKextAuthenticate(*identifier); !authentic) {
    facts.set(kFactKextFault, describe(authentic.error()));
  }
  const Value information = loader.KextManagerCopyLoadedKextInfo({*identifier})[*identifier];
  if (!isKextUnknown(information)) facts.set(kFactKextIsLoaded, !information.isNil());
  const Value& loadedPath = information[kOSBundlePathKey];
  if (!loadedPath.isNil() && loadedPath != facts[kFactKextPath]) {
    facts.set(kFactKextLoadedPath, loadedPath);
  }
  const Value& process = information[kOSBundleProcessKey];
  if (!process.isNil()) facts.set(kFactKextProcess, process);
  const auto socket = connectToControl(platform_.extensions.controls, *identifier);
  facts.set(kFactKextIsConnected, socket.has_value());
  if (socket) facts.set(kFactKextIsAnswering, (*socket)->ping().has_value());
  return facts;
}
