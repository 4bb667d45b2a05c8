#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Platform/Files/Bundle.h"
#include "Platform/Files/FileReader.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Processes/Task.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Supervision/KextLoading.h"

// The parts of the platform that load kernel extensions.
struct KernelExtensionsPlatform {
  platform::KernelExtensions& loader;
  platform::KernelControls& controls;
  platform::Tasks& tasks;
  std::string root;  // of the platform, where older releases have a program that unloads extensions
};

// Loads, configures and unloads the kernel extensions that services need. An extension that can no
// longer be used is unloaded, after the services that use it have been stopped. Belongs to the main
// thread, which it blocks while an extension is loaded or answers. Failures are logged.
class ExtensionControl {
 public:
  // All of it outlives this.
  struct Environment {
    platform::RunLoop& runLoop;
    const KernelExtensionsPlatform& extensions;
    const platform::SystemInformation& system;
    platform::FileReader& files;
    const platform::Bundle& mainBundle;
    const ServiceCatalogue& catalogue;
    const platform::Value& secret;  // of this run, for the network extension
    // Stops a service before its extension is unloaded, and evaluates it again afterwards.
    std::function<void(const std::string& label)> stopService;
    std::function<void(const std::string& label, platform::Duration delay)> evaluateLater;
  };

  explicit ExtensionControl(const Environment& environment);

  // Loads and configures those extensions of the service that kextsLoaded() does not list, as many
  // as it can. True if none failed.
  bool startAssociatedSystemExtensions(const std::string& label);
  // The extensions of a service that stops stay loaded, and are configured again with its next
  // start.
  void forgetExtensionsOf(const std::string& label);
  void forgetAll() { kextsLoaded_.clear(); }

  // Loads an extension unless it is loaded, and configures it. If it has to be unloaded for that,
  // the services that use it are stopped, and evaluated again 5 seconds later.
  bool loadKextWithIdentifier(const std::optional<std::string>& identifier,
                              const std::string& kextName, const platform::Array& withOptions);
  // A socket that is connected to an extension's control; null if connecting fails.
  std::unique_ptr<platform::ControlSocket> createControlSocketWithIdentifier(
      std::string_view controlName);

  // The names of the extensions that were loaded and configured in this run.
  const std::set<std::string>& kextsLoaded() const { return kextsLoaded_; }

 private:
  struct KextLoad;
  KextLoadingOutcome loadKextThroughState(KextLoadingState state, KextLoad& load);
  KextLoadingOutcome connectKext(KextLoad& load);
  KextLoadingOutcome configureKext(KextLoad& load);
  KextLoadingOutcome unloadKext(KextLoad& load);
  bool unloadKextWithIdentifier(const std::optional<std::string>& identifier);

  const Environment environment_;
  std::set<std::string> kextsLoaded_;
};
