#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Supervision/ExtensionLoad.h"
#include "ServiceManager/Supervision/KextLoading.h"

// Loads, configures and unloads the kernel extensions that services need. An extension that can no
// longer be used is unloaded, after the services that use it have been stopped. Belongs to the main
// thread. A worker does all that may wait for an extension, so that an extension that hangs holds
// up only the services that need it. Failures are logged.
class ExtensionControl {
 public:
  using Done = std::move_only_function<void(bool hasSucceeded)>;

  // All of it outlives this.
  struct Environment {
    platform::RunLoop& runLoop;
    // Runs work on the worker, one piece after the other. The worker alone uses `loads`.
    std::function<void(platform::RunLoop::Callback work)> onWorker;
    ExtensionLoad::Environment loads;
    const ServiceCatalogue& catalogue;
    const platform::Value& secret;  // of this run, for the network extension
    // Stops a service before its extension is unloaded, and evaluates it again afterwards.
    std::function<void(const std::string& label, Done done)> stopService;
    std::function<void(const std::string& label, platform::Duration delay)> evaluateLater;
    // The load of an extension has ended; the step is empty if it has not failed.
    std::function<void(const std::string& name, std::string_view failedStep)> onEnd;
  };

  explicit ExtensionControl(const Environment& environment);
  ExtensionControl(const ExtensionControl&) = delete;
  ExtensionControl& operator=(const ExtensionControl&) = delete;
  ~ExtensionControl();

  // Loads and configures those extensions of the service that kextsLoaded() does not list, as many
  // as it can. True if none failed. `done` is called at once if there is nothing to do, else later
  // on the loop.
  void startAssociatedSystemExtensions(const std::string& label, Done done);
  // The extensions of a service that stops stay loaded, and are configured again with its next
  // start.
  void forgetExtensionsOf(const std::string& label);
  void forgetAll() {
    forgetLoaded();
    configured_.clear();
  }
  // The job host may have lost an extension's job. So each extension is looked for again with the
  // next evaluation of a service that uses it.
  void forgetLoaded() { kextsLoaded_.clear(); }

  // The job host did not start the extension's process, because its program is not the verified
  // file any more. The services that use it are evaluated, which loads
  // the new file.
  void programHasChanged(std::string_view identifier);

  // Loads an extension unless it is loaded, and configures it. If it has to be unloaded for that,
  // the services that use it are stopped, and evaluated again 5 seconds later. `done` is called
  // later on the loop. If the extension is being loaded already, this call gets the same result.
  void loadKextWithIdentifier(const std::optional<std::string>& identifier,
                              const std::string& kextName, const platform::Array& withOptions,
                              Done done);

  // The extensions whose last start has failed, by name.
  struct Failure {
    std::string_view step;  // one of the words below
    platform::Instant time;
  };
  using Failures = std::map<std::string, Failure, std::less<>>;
  const Failures& failures() const { return failures_; }

  // The names of the extensions that need not be configured for the next start of a service.
  const std::set<std::string>& kextsLoaded() const { return kextsLoaded_; }
  // The processes of those whose last start has succeeded, by name. The stop of a service does not
  // change this. An extension that was restarted since has another process.
  const std::map<std::string, platform::ProcessId>& configured() const { return configured_; }

 private:
  struct Start;
  struct Load;
  using LoadPointer = std::shared_ptr<Load>;
  using Action = KextLoadingOutcome (ExtensionLoad::*)();

  void startNext(std::shared_ptr<Start> start);
  void act(const LoadPointer& load);
  void actOnWorker(const LoadPointer& load, Action action);
  void finish(const LoadPointer& load, KextLoadingOutcome outcome);
  void stopServicesAndUnload(const LoadPointer& load);
  void retryLater(const std::string& name);
  void end(LoadPointer load);

  const Environment environment_;
  std::set<std::string> kextsLoaded_;
  std::map<std::string, platform::ProcessId> configured_;
  Failures failures_;
  std::map<std::string, LoadPointer> loads_;  // those under way, by name
  // Answers of the worker and of services that come after the end of this object are dropped.
  const std::shared_ptr<int> isAlive_ = std::make_shared<int>();
};

// The step that failed last while an extension was started.
inline constexpr std::string_view kKextIsRejected = "isRejected";  // its version is too old
inline constexpr std::string_view kKextIsNotConfigured = "isNotConfigured";
inline constexpr std::string_view kKextIsNotLoaded = "isNotLoaded";
inline constexpr std::string_view kKextIsNotUnloaded = "isNotUnloaded";
inline constexpr std::string_view kKextIsUnchecked = "isUnchecked";  // its signature; it is retried
