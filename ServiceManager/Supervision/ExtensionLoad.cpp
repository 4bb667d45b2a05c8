#include "ServiceManager/Supervision/ExtensionLoad.h"

#include <utility>
#include <vector>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/PathComponents.h"
#include "ServiceManager/Supervision/VGKextManager.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

// The network extension. Only this one is asked for its version and may get the secret.
constexpr std::string_view kNetworkKext = "com.vantor.nke.wfk";
constexpr std::uint32_t kVersionOption = 3;
constexpr std::uint32_t kSecretOption = 5;
constexpr std::int32_t kLatestUnusableVersion = 4;

constexpr char kSystemExtensions[] = "/System/Library/Extensions";

bool isRecentEnough(ControlSocket& socket) {
  const auto version = socket.getIntegerOption(kVersionOption);
  return version && version->length >= sizeof version->value &&
         version->value > kLatestUnusableVersion;
}

KextLoadingOutcome successOrFailure(bool hasSucceeded) {
  return hasSucceeded ? KextLoadingOutcome::kSucceeded : KextLoadingOutcome::kFailed;
}

}  // namespace

std::unique_ptr<ControlSocket> createControlSocketWithIdentifier(KernelControls& controls,
                                                                 std::string_view controlName) {
  auto socket = controls.openControlSocket();
  if (!socket || !(*socket)->findControl(platform::controlName(controlName))) return nullptr;
  if (!(*socket)->connect()) {
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Unable to establish connection with the Generic kext");
    return nullptr;
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Connected to Generic Kext");
  return *std::move(socket);
}

ExtensionLoad::ExtensionLoad(const Environment& environment, std::optional<std::string> identifier,
                             Array options, Value secret)
    : environment_(environment),
      identifier_(std::move(identifier)),
      options_(std::move(options)),
      secret_(std::move(secret)) {}

bool ExtensionLoad::isNetworkKext() const { return identifier_ == kNetworkKext; }

KextLoadingOutcome ExtensionLoad::connect() {
  socket_ =
      createControlSocketWithIdentifier(environment_.extensions.controls, identifier_.value_or(""));
  if (!socket_) return KextLoadingOutcome::kFailed;
  if (!isNetworkKext() || isRecentEnough(*socket_)) return KextLoadingOutcome::kSucceeded;
  socket_.reset();
  return KextLoadingOutcome::kRejected;
}

KextLoadingOutcome ExtensionLoad::configure() {
  for (const Value& option : options_) {
    if (option != Value(catalogue_keys::kSecureOption) || !isNetworkKext()) continue;
    const Data* const secret = secret_.data();
    if (secret && socket_->setOption(kSecretOption, *secret)) continue;
    socket_.reset();
    return KextLoadingOutcome::kRejected;
  }
  configured_ = socket_->offeredBy();
  return KextLoadingOutcome::kSucceeded;
}

KextLoadingOutcome ExtensionLoad::load() {
  const auto loaded = environment_.extensions.loader.KextManagerLoadKextWithIdentifier(
      identifier_.value_or(""), {});
  if (!loaded && isUnchecked(loaded.error())) return KextLoadingOutcome::kNotYet;
  return successOrFailure(loaded.has_value());
}

KextLoadingOutcome ExtensionLoad::unload() { return successOrFailure(unloadKextWithIdentifier()); }

bool ExtensionLoad::unloadKextWithIdentifier() {
  const KernelExtensionsPlatform& extensions = environment_.extensions;
  if (NSProcessInfo::Extensions::isMacOSX7OrAbove(&environment_.system)) {
    return extensions.loader.KextManagerUnloadKextWithIdentifier(identifier_.value_or(""))
        .has_value();
  }
  if (!identifier_) return false;
  const std::string inSystem = pathByAppendingComponent(
      pathByAppendingComponent(extensions.root, kSystemExtensions), *identifier_);
  std::vector<std::string> arguments;
  if (environment_.files.fileExistsAtPath(*identifier_)) {
    arguments = {*identifier_};
  } else if (const auto ours = environment_.mainBundle.pathForResource(*identifier_, "kext")) {
    arguments = {*ours};
  } else if (environment_.files.fileExistsAtPath(inSystem)) {
    arguments = {inSystem};
  } else {
    arguments = {"-b", *identifier_};
  }
  return VGKextManagerExecuteKextCommand(extensions.tasks, extensions.root, arguments);
}
