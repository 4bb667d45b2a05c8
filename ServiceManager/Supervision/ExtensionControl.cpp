#include "ServiceManager/Supervision/ExtensionControl.h"

#include <chrono>
#include <string_view>
#include <utility>
#include <vector>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"

using namespace platform;

namespace {

using namespace std::chrono_literals;

constexpr Duration kUnloadTime = 1s;
constexpr Duration kUnloadPause = 200ms;
constexpr Duration kReloadEvaluationDelay = 5s;
constexpr Duration kUncheckedPause = 5s;

// Empty if the outcome is no failure, or the next step may repair it.
std::string_view failedStep(KextLoadingState state, KextLoadingOutcome outcome) {
  if (outcome == KextLoadingOutcome::kRejected) return kKextIsRejected;
  if (outcome == KextLoadingOutcome::kNotYet) return kKextIsUnchecked;
  if (outcome != KextLoadingOutcome::kFailed) return {};
  switch (state) {
    case KextLoadingState::kConfigure:
      return kKextIsNotConfigured;
    case KextLoadingState::kLoad:
    case KextLoadingState::kReload:
      return kKextIsNotLoaded;
    case KextLoadingState::kUnload:
      return kKextIsNotUnloaded;
    default:
      return {};
  }
}

}  // namespace

// The extensions of one service, which are started one after the other.
struct ExtensionControl::Start {
  std::vector<std::string> names;
  std::size_t next = 0;
  bool haveAllStarted = true;
  Done done;
};

// One extension while it passes through the states.
struct ExtensionControl::Load {
  const std::optional<std::string> identifier;
  const std::string name;
  ExtensionLoad work;  // the worker's while an action is under way
  std::vector<Done> callers = {};
  KextLoadingState state = KextLoadingState::kConnect;
  std::optional<Instant> deadline = std::nullopt;
  std::set<std::string> stopped = {};  // services that the unloading has stopped
  std::size_t stopping = 0;            // the number of those that have not ended yet
  std::unique_ptr<RunLoopHandle> pause = nullptr;
  std::string_view failedStep = {};
};

ExtensionControl::ExtensionControl(const Environment& environment) : environment_(environment) {}
ExtensionControl::~ExtensionControl() = default;

void ExtensionControl::startAssociatedSystemExtensions(const std::string& label, Done done) {
  startNext(std::make_shared<Start>(
      Start{.names = environment_.catalogue.extensionsOf(label), .done = std::move(done)}));
}

void ExtensionControl::startNext(std::shared_ptr<Start> start) {
  while (start->next < start->names.size() && kextsLoaded_.contains(start->names[start->next])) {
    ++start->next;
  }
  if (start->next == start->names.size()) {
    start->done(start->haveAllStarted);
    return;
  }
  const std::string name = start->names[start->next++];
  const std::optional<std::string> identifier = environment_.catalogue.extensionIdentifier(name);
  const Value options = environment_.catalogue.extensions()[name][catalogue_keys::kOptions];
  loadKextWithIdentifier(identifier, name, options.array() ? *options.array() : Array(),
                         [this, name, identifier, start = std::move(start)](bool isLoaded) mutable {
                           if (isLoaded) {
                             kextsLoaded_.insert(name);
                           } else {
                             start->haveAllStarted = false;
                             vantorlogger2_line(
                                 ASL_LEVEL_INFO,
                                 stringWithFormat("Failed to load kext '%@'", identifier));
                           }
                           startNext(std::move(start));
                         });
}

void ExtensionControl::forgetExtensionsOf(const std::string& label) {
  for (const std::string& name : environment_.catalogue.extensionsOf(label)) {
    kextsLoaded_.erase(name);
  }
}

void ExtensionControl::programHasChanged(std::string_view identifier) {
  const Value& extensions = environment_.catalogue.extensions();
  if (!extensions.dictionary()) return;
  for (const auto& [name, entry] : *extensions.dictionary()) {
    if (environment_.catalogue.extensionIdentifier(name) != identifier) continue;
    kextsLoaded_.erase(name);
    for (const std::string& label : environment_.catalogue.daemonsUsingKext(name)) {
      environment_.evaluateLater(label, Duration::zero());
    }
  }
}

void ExtensionControl::loadKextWithIdentifier(const std::optional<std::string>& identifier,
                                              const std::string& kextName, const Array& withOptions,
                                              Done done) {
  LoadPointer& entry = loads_[kextName];
  if (entry) {
    entry->callers.push_back(std::move(done));
    return;
  }
  entry = std::make_shared<Load>(
      Load{identifier, kextName,
           ExtensionLoad(environment_.loads, identifier, withOptions, environment_.secret)});
  entry->callers.push_back(std::move(done));
  act(LoadPointer(entry));
}

void ExtensionControl::act(const LoadPointer& load) {
  switch (load->state) {
    case KextLoadingState::kConnect:
      return actOnWorker(load, &ExtensionLoad::connect);
    case KextLoadingState::kConfigure:
      return actOnWorker(load, &ExtensionLoad::configure);
    case KextLoadingState::kLoad:
    case KextLoadingState::kReload:
      return actOnWorker(load, &ExtensionLoad::load);
    case KextLoadingState::kUnload:
      return stopServicesAndUnload(load);
    case KextLoadingState::kFailed:
    case KextLoadingState::kDone:
      return end(load);
  }
}

void ExtensionControl::actOnWorker(const LoadPointer& load, Action action) {
  environment_.onWorker([this, &loop = environment_.runLoop, isAlive = std::weak_ptr(isAlive_),
                         load, action]() mutable {
    const KextLoadingOutcome outcome = (load->work.*action)();
    // The worker keeps nothing of it: the rest belongs to the main thread.
    loop.post([this, isAlive = std::move(isAlive), load = std::move(load), outcome] {
      if (!isAlive.expired()) finish(load, outcome);
    });
  });
}

void ExtensionControl::finish(const LoadPointer& load, KextLoadingOutcome outcome) {
  if (load->state == KextLoadingState::kUnload && outcome == KextLoadingOutcome::kFailed) {
    if (environment_.runLoop.now() <= *load->deadline) {
      load->state = nextKextLoadingState(load->state, KextLoadingOutcome::kNotYet);
      load->pause = environment_.runLoop.startTimer(
          kUnloadPause, RunLoop::Repeat::kOnce,
          [this, load = load.get()] { act(loads_.at(load->name)); });
      return;
    }
    vantorlogger2_line(ASL_LEVEL_ERR,
                       stringWithFormat("Unable to unload kext '%@'.", load->identifier));
  }
  const std::string_view step = failedStep(load->state, outcome);
  // An extension is unloaded because of an earlier failure, which tells more.
  if (!step.empty() && (load->failedStep.empty() || step != kKextIsNotUnloaded))
    load->failedStep = step;
  load->state = nextKextLoadingState(load->state, outcome);
  act(load);
}

// The services are stopped at every try, because one may have been started meanwhile.
void ExtensionControl::stopServicesAndUnload(const LoadPointer& load) {
  load->pause = nullptr;
  if (!load->deadline) load->deadline = environment_.runLoop.now() + kUnloadTime;
  load->stopped = environment_.catalogue.daemonsUsingKext(load->name);
  if (load->stopped.empty()) return actOnWorker(load, &ExtensionLoad::unload);
  load->stopping = load->stopped.size();
  for (const std::string& label : std::set(load->stopped)) {
    environment_.stopService(label,
                             [this, isAlive = std::weak_ptr(isAlive_), load](bool /*hasStopped*/) {
                               if (isAlive.expired() || --load->stopping > 0) return;
                               actOnWorker(load, &ExtensionLoad::unload);
                             });
  }
}

// The services that run go on, the others are not started before the extension can be checked.
void ExtensionControl::retryLater(const std::string& name) {
  for (const std::string& label : environment_.catalogue.daemonsUsingKext(name)) {
    environment_.evaluateLater(label, kUncheckedPause);
  }
}

void ExtensionControl::end(LoadPointer load) {
  loads_.erase(load->name);
  load->work.closeSocket();
  for (const std::string& label : load->stopped) {
    environment_.evaluateLater(label, kReloadEvaluationDelay);
  }
  const bool isLoaded = load->state == KextLoadingState::kDone;
  if (isLoaded) {
    failures_.erase(load->name);
    configured_[load->name] = load->work.configuredProcess();
  } else {
    configured_.erase(load->name);
    failures_[load->name] = {load->failedStep, environment_.runLoop.now()};
    if (load->failedStep == kKextIsUnchecked) retryLater(load->name);
  }
  environment_.onEnd(load->name, isLoaded ? std::string_view() : load->failedStep);
  for (Done& done : load->callers) done(isLoaded);
}
