#include "Platform/Testing/KernelExtensions/FakeKernelExtensions.h"

#include <cerrno>
#include <chrono>
#include <utility>

namespace platform {
namespace {

constexpr Duration kControlWait = std::chrono::seconds(5);

std::unexpected<Error> extensionFailure(ErrorCode code, int number, const std::string& identifier,
                                        const char* what) {
  return std::unexpected(Error{code, number, identifier + ": " + what});
}

}  // namespace

void FakeKernelExtensions::install(const std::string& identifier, MakeControlHandler makeHandler) {
  extensions_[identifier] = {};
  controls_.offer(controlName(identifier), std::move(makeHandler), [this, identifier] {
    const Extension& extension = at(identifier);
    return extension.isLoaded && !extension.hasCrashed && !extension.isWithoutControl;
  });
}

bool FakeKernelExtensions::canBeConnectedTo(const std::string& identifier) {
  return connectToControl(controls_, identifier).has_value();
}

Result<std::string> FakeKernelExtensions::KextManagerCreateURLForBundleIdentifier(
    const std::string& identifier) {
  if (!extensions_.contains(identifier)) {
    return extensionFailure(ErrorCode::kNotFound, 0, identifier, "no such extension");
  }
  return "/Library/Extensions/" + identifier + ".kext";
}

Result<void> FakeKernelExtensions::OSKextAuthenticate(const std::string& identifier) {
  if (auto found = KextManagerCreateURLForBundleIdentifier(identifier); !found) {
    return std::unexpected(found.error());
  }
  if (at(identifier).isUnchecked) {
    return std::unexpected(uncheckedExtension(identifier + ": Too many open files"));
  }
  if (at(identifier).loadFails)
    return extensionFailure(ErrorCode::kDenied, 0, identifier, "unsigned");
  return {};
}

Result<void> FakeKernelExtensions::KextManagerLoadKextWithIdentifier(
    const std::string& identifier, const std::vector<std::string>& folders) {
  requests_.push_back("load " + identifier);
  for (const std::string& folder : folders) requests_.back() += " " + folder;
  if (!extensions_.contains(identifier)) {
    return extensionFailure(ErrorCode::kNotFound, 0, identifier, "no such extension");
  }
  // A copy, because the test's callback may change everything.
  if (const auto onLoad = at(identifier).onLoad) onLoad();
  Extension& extension = at(identifier);
  if (extension.isUnchecked && !extension.isLoaded) {
    return std::unexpected(uncheckedExtension(identifier + ": Too many open files"));
  }
  if (extension.loadFails) return extensionFailure(ErrorCode::kDenied, 0, identifier, "unsigned");
  const bool wasLoaded = std::exchange(extension.isLoaded, true);
  if (!wasLoaded) extension.hasCrashed = false;
  if (extension.isWithoutControl || canBeConnectedTo(identifier)) return {};
  loop_.sleepFor(kControlWait);
  if (canBeConnectedTo(identifier)) return {};
  extension.isLoaded = wasLoaded;
  return extensionFailure(ErrorCode::kNotFound, 0, identifier, "its control does not listen");
}

Result<void> FakeKernelExtensions::KextManagerUnloadKextWithIdentifier(
    const std::string& identifier) {
  requests_.push_back("unload " + identifier);
  if (!extensions_.contains(identifier) || !at(identifier).isLoaded) {
    return extensionFailure(ErrorCode::kNotFound, 0, identifier, "not loaded");
  }
  if (const auto onUnload = at(identifier).onUnload) onUnload();
  Extension& extension = at(identifier);
  if (extension.busyTimes > 0) {
    --extension.busyTimes;
    return extensionFailure(ErrorCode::kDenied, EBUSY, identifier, "in use");
  }
  if (const auto socket = connectToControl(controls_, identifier)) {
    const auto prepared = (*socket)->prepareToUnload();
    if (!prepared && prepared.error().code == ErrorCode::kDenied) {
      return extensionFailure(ErrorCode::kDenied, EBUSY, identifier, "in use");
    }
  }
  extension.isLoaded = false;
  return {};
}

Dictionary FakeKernelExtensions::KextManagerCopyLoadedKextInfo(
    const std::vector<std::string>& identifiers) {
  Dictionary loaded;
  for (const std::string& identifier : identifiers) {
    const auto found = extensions_.find(identifier);
    if (found == extensions_.end()) continue;
    if (found->second.isUnknown) loaded.set(identifier, Dictionary());
    if (found->second.isUnknown || !found->second.isLoaded) continue;
    loaded.set(identifier,
               Dictionary{{kOSBundlePathKey, "/Library/Extensions/" + identifier + ".kext"}});
  }
  return loaded;
}

}  // namespace platform
