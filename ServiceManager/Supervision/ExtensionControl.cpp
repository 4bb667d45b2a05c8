#include "ServiceManager/Supervision/ExtensionControl.h"

#include <chrono>
#include <utility>
#include <vector>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/PathComponents.h"
#include "ServiceManager/Supervision/VGKextManager.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

using namespace std::chrono_literals;

// The network extension. Only this one is asked for its version and may get the secret.
constexpr std::string_view kNetworkKext = "com.vantor.nke.wfk";
constexpr std::uint32_t kVersionOption = 3;
constexpr std::uint32_t kSecretOption = 5;
constexpr std::int32_t kLatestUnusableVersion = 4;
constexpr std::string_view kSecureOption = "secure";

constexpr char kSystemExtensions[] = "/System/Library/Extensions";
constexpr Duration kUnloadTime = 1s;
constexpr Duration kUnloadPause = 200ms;
constexpr Duration kReloadEvaluationDelay = 5s;

bool isRecentEnough(ControlSocket& socket) {
  const auto version = socket.getIntegerOption(kVersionOption);
  return version && version->length >= sizeof version->value &&
         version->value > kLatestUnusableVersion;
}

}  // namespace

// One extension while it passes through the states.
struct ExtensionControl::KextLoad {
  const std::optional<std::string>& identifier;
  const std::string& name;
  const Array& options;
  std::unique_ptr<ControlSocket> socket = nullptr;  // never kept beyond the end
  std::optional<Instant> deadline = std::nullopt;
  std::set<std::string> stopped = {};  // services that the unloading has stopped

  bool isNetworkKext() const { return identifier == kNetworkKext; }
};

ExtensionControl::ExtensionControl(const Environment& environment) : environment_(environment) {}

bool ExtensionControl::startAssociatedSystemExtensions(const std::string& label) {
  bool haveAllStarted = true;
  for (const std::string& name : environment_.catalogue.extensionsOf(label)) {
    if (kextsLoaded_.contains(name)) continue;
    const std::optional<std::string> identifier = environment_.catalogue.extensionIdentifier(name);
    const Value options = environment_.catalogue.extensions()[name]["Options"];
    if (loadKextWithIdentifier(identifier, name, options.array() ? *options.array() : Array())) {
      kextsLoaded_.insert(name);
      continue;
    }
    haveAllStarted = false;
    vantorlogger2_line(ASL_LEVEL_INFO, stringWithFormat("Failed to load kext '%@'", identifier));
  }
  return haveAllStarted;
}

void ExtensionControl::forgetExtensionsOf(const std::string& label) {
  for (const std::string& name : environment_.catalogue.extensionsOf(label)) {
    kextsLoaded_.erase(name);
  }
}

bool ExtensionControl::loadKextWithIdentifier(const std::optional<std::string>& identifier,
                                              const std::string& kextName,
                                              const Array& withOptions) {
  using enum KextLoadingState;
  KextLoad load{identifier, kextName, withOptions};
  KextLoadingState state = kConnect;
  while (state != kFailed && state != kDone) {
    state = nextKextLoadingState(state, loadKextThroughState(state, load));
  }
  for (const std::string& label : load.stopped) {
    environment_.evaluateLater(label, kReloadEvaluationDelay);
  }
  return state == kDone;
}

KextLoadingOutcome ExtensionControl::loadKextThroughState(KextLoadingState state, KextLoad& load) {
  switch (state) {
    case KextLoadingState::kConnect:
      return connectKext(load);
    case KextLoadingState::kConfigure:
      return configureKext(load);
    case KextLoadingState::kLoad:
    case KextLoadingState::kReload:
      return environment_.extensions.loader.KextManagerLoadKextWithIdentifier(
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

KextLoadingOutcome ExtensionControl::connectKext(KextLoad& load) {
  load.socket = createControlSocketWithIdentifier(load.identifier.value_or(""));
  if (!load.socket) return KextLoadingOutcome::kFailed;
  if (!load.isNetworkKext() || isRecentEnough(*load.socket)) return KextLoadingOutcome::kSucceeded;
  load.socket.reset();
  return KextLoadingOutcome::kRejected;
}

KextLoadingOutcome ExtensionControl::configureKext(KextLoad& load) {
  for (const Value& option : load.options) {
    if (option != Value(kSecureOption) || !load.isNetworkKext()) continue;
    const Data* const secret = environment_.secret.data();
    if (secret && load.socket->setOption(kSecretOption, *secret)) continue;
    load.socket.reset();
    return KextLoadingOutcome::kRejected;
  }
  return KextLoadingOutcome::kSucceeded;
}

KextLoadingOutcome ExtensionControl::unloadKext(KextLoad& load) {
  RunLoop& loop = environment_.runLoop;
  if (!load.deadline) load.deadline = loop.now() + kUnloadTime;
  // Stop them at every try: a service may have been started meanwhile.
  load.stopped = environment_.catalogue.daemonsUsingKext(load.name);
  for (const std::string& label : load.stopped) environment_.stopService(label);
  if (unloadKextWithIdentifier(load.identifier)) return KextLoadingOutcome::kSucceeded;
  if (loop.now() > *load.deadline) {
    vantorlogger2_line(ASL_LEVEL_ERR,
                       stringWithFormat("Unable to unload kext '%@'.", load.identifier));
    return KextLoadingOutcome::kFailed;
  }
  loop.sleepFor(kUnloadPause);
  return KextLoadingOutcome::kNotYet;
}

bool ExtensionControl::unloadKextWithIdentifier(const std::optional<std::string>& identifier) {
  const KernelExtensionsPlatform& extensions = environment_.extensions;
  if (NSProcessInfo::Extensions::isMacOSX7OrAbove(&environment_.system)) {
    return extensions.loader.KextManagerUnloadKextWithIdentifier(identifier.value_or(""))
        .has_value();
  }
  if (!identifier) return false;
  const std::string inSystem = pathByAppendingComponent(
      pathByAppendingComponent(extensions.root, kSystemExtensions), *identifier);
  std::vector<std::string> arguments;
  if (environment_.files.fileExistsAtPath(*identifier)) {
    arguments = {*identifier};
  } else if (const auto ours = environment_.mainBundle.pathForResource(*identifier, "kext")) {
    arguments = {*ours};
  } else if (environment_.files.fileExistsAtPath(inSystem)) {
    arguments = {inSystem};
  } else {
    arguments = {"-b", *identifier};
  }
  return VGKextManagerExecuteKextCommand(extensions.tasks, extensions.root, arguments);
}

std::unique_ptr<ControlSocket> ExtensionControl::createControlSocketWithIdentifier(
    std::string_view controlName) {
  auto socket = environment_.extensions.controls.openControlSocket();
  if (!socket || !(*socket)->findControl(platform::controlName(controlName))) return nullptr;
  if (!(*socket)->connect()) {
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Unable to establish connection with the Generic kext");
    return nullptr;
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Connected to Generic Kext");
  return *std::move(socket);
}
