#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"

namespace platform {

// Extensions that a test installs. A loaded one offers its control.
class FakeKernelExtensions final : public KernelExtensions {
 public:
  // Both outlive this.
  FakeKernelExtensions(VirtualRunLoop& loop, FakeKernelControls& controls)
      : loop_(loop), controls_(controls) {}

  void install(const std::string& identifier, MakeControlHandler makeHandler);

  // Whether loading it, also again, fails from now on.
  void setLoadFails(const std::string& identifier, bool fails) { at(identifier).loadFails = fails; }
  // The signature of the extension can't be checked.
  void setUnchecked(const std::string& identifier, bool unchecked) {
    at(identifier).isUnchecked = unchecked;
  }
  // Loading it reports success although its control does not appear, which the real loader never
  // does.
  void setWithoutControl(const std::string& identifier, bool without) {
    at(identifier).isWithoutControl = without;
  }
  // Unloading it fails `times` times.
  void setBusy(const std::string& identifier, int times) { at(identifier).busyTimes = times; }
  // It crashes: it stays loaded without its control, like a job that waits for its next start.
  void crash(const std::string& identifier) { at(identifier).hasCrashed = true; }
  void setOnLoad(const std::string& identifier, std::function<void()> onLoad) {
    at(identifier).onLoad = std::move(onLoad);
  }
  void setOnUnload(const std::string& identifier, std::function<void()> onUnload) {
    at(identifier).onUnload = std::move(onUnload);
  }
  // Whether the state of the extension is unknown.
  void setUnknown(const std::string& identifier, bool unknown) {
    at(identifier).isUnknown = unknown;
  }
  // Marks it as loaded from the beginning.
  void setLoaded(const std::string& identifier) { at(identifier).isLoaded = true; }

  bool isLoaded(const std::string& identifier) const { return extensions_.at(identifier).isLoaded; }
  // The requests in order, as "load ID" and "unload ID", and the folders of a load behind it.
  const std::vector<std::string>& requests() const { return requests_; }

  Result<std::string> KextManagerCreateURLForBundleIdentifier(
      const std::string& identifier) override;
  Result<void> OSKextAuthenticate(const std::string& identifier) override;
  Result<void> KextManagerLoadKextWithIdentifier(const std::string& identifier,
                                                 const std::vector<std::string>& folders) override;
  Result<void> KextManagerUnloadKextWithIdentifier(const std::string& identifier) override;
  Dictionary KextManagerCopyLoadedKextInfo(const std::vector<std::string>& identifiers) override;

 private:
  struct Extension {
    bool isLoaded = false;
    bool isUnknown = false;
    bool loadFails = false;
    bool isUnchecked = false;
    bool isWithoutControl = false;
    bool hasCrashed = false;
    int busyTimes = 0;
    std::function<void()> onLoad;
    std::function<void()> onUnload;
  };
  Extension& at(const std::string& identifier) { return extensions_.at(identifier); }
  bool canBeConnectedTo(const std::string& identifier);

  VirtualRunLoop& loop_;
  FakeKernelControls& controls_;
  std::map<std::string, Extension> extensions_;
  std::vector<std::string> requests_;
};

}  // namespace platform
