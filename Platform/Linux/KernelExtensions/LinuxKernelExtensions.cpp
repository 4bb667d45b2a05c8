#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"

#include <cerrno>
#include <ranges>
#include <utility>

#include <fmt/format.h>

#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/SystemFacts/LibraryPath.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

constexpr char kIdent[] = "KextManager";
constexpr auto kUnloadingPause = 20ms;
// An extension that does not end by itself is killed, because the caller of unload() waits for it.
constexpr std::int64_t kExitTimeOut = 1;
// The throttle holds also for an extension that was unloaded. It is shorter than kControlWait, so
// that it can be loaded again at once.
constexpr std::int64_t kThrottle = 1;

// Information on a running extension, wherever its bundle is by now.
Dictionary jobInformationOf(const Value& job) {
  Dictionary information{{kOSBundleProcessKey, jobStatusIn(job).process.value_or(0)}};
  if (const std::string* const program = job["Program"].string()) {
    information.set(kOSBundlePathKey, program->substr(0, program->rfind(kProgramsFolder)));
  }
  return information;
}

Error extensionErrorOf(const std::string& identifier, const NSError& error) {
  std::string why = fmt::format("{}: {}", identifier, error.localizedDescription);
  // The program was replaced after the check, so nothing is known about the new one.
  if (error.code == static_cast<int>(LaunchdError::kProgramChanged)) {
    return uncheckedExtension(std::move(why));
  }
  return {ErrorCode::kSystem, 0, std::move(why)};
}

Error unknownJob(const std::string& identifier) {
  return {ErrorCode::kSystem, 0,
          identifier + ": the job host does not tell whether its program runs"};
}

}  // namespace

LinuxKernelExtensions::LinuxKernelExtensions(const Environment& environment,
                                             std::vector<std::string> folders)
    : environment_(environment),
      folders_(std::move(folders)),
      failures_(environment.loop, environment.log, kIdent) {}

std::vector<std::string> LinuxKernelExtensions::folders(const std::string& root,
                                                        const std::string& resourcePath) {
  return {libraryPath(root, "Extensions"), resourcePath};
}

Result<std::string> LinuxKernelExtensions::KextManagerCreateURLForBundleIdentifier(
    const std::string& identifier) {
  auto bundle = findKextBundle(identifier, folders_);
  if (!bundle) return std::unexpected(std::move(bundle.error()));
  return std::move(bundle->path);
}

Result<void> LinuxKernelExtensions::OSKextAuthenticate(const std::string& identifier) {
  const auto bundle = findKextBundle(identifier, folders_);
  if (!bundle) return std::unexpected(bundle.error());
  if (auto checked = checkSignature(*bundle); !checked) return std::unexpected(checked.error());
  return {};
}

Result<void> LinuxKernelExtensions::KextManagerLoadKextWithIdentifier(
    const std::string& identifier, const std::vector<std::string>& folders) {
  return logged(load(identifier, folders));
}

Result<void> LinuxKernelExtensions::KextManagerUnloadKextWithIdentifier(
    const std::string& identifier) {
  return logged(unload(identifier));
}

Dictionary LinuxKernelExtensions::KextManagerCopyLoadedKextInfo(
    const std::vector<std::string>& identifiers) {
  Dictionary loaded;
  for (const std::string& identifier : identifiers) {
    const Value job = copyJob(identifier);
    if (job.isNil()) continue;
    loaded.set(identifier, isJobUnknown(job) ? Dictionary() : jobInformationOf(job));
  }
  return loaded;
}

Result<void> LinuxKernelExtensions::logged(Result<void> result) {
  if (!result) failures_.write(describe(result.error()));
  return result;
}

Result<void> LinuxKernelExtensions::load(const std::string& identifier,
                                         const std::vector<std::string>& folders) {
  std::vector<std::string> places = folders_;
  places.insert(places.end(), folders.begin(), folders.end());
  const auto bundle = findKextBundle(identifier, places);
  if (!bundle) return std::unexpected(bundle.error());
  // An extension that already runs was started by somebody else, and stays even if it does not
  // answer.
  const auto loaded = isLoaded(*bundle);
  if (!loaded) return std::unexpected(loaded.error());
  if (*loaded) return awaitControl(identifier);
  const auto program = checkSignature(*bundle);
  if (!program) return std::unexpected(program.error());
  if (auto counted = countStart(identifier); !counted) return counted;
  const auto inserted = insertModule(*bundle);
  if (!inserted) {
    // Nothing was submitted. A job of an earlier load, whose module has gone, stays.
    starts_[identifier].pop_back();
    return std::unexpected(inserted.error());
  }
  auto outcome = submitJob(*bundle, *program);
  const bool hasRun = outcome || mayHaveBeenSubmitted(identifier);
  if (outcome) outcome = awaitControl(identifier);
  if (outcome) return outcome;
  const auto add = [&](const Error& another) {
    outcome.error().context += fmt::format(" (and {})", describe(another));
  };
  if (!hasRun) {
    starts_[identifier].pop_back();
  } else if (auto ended = removeJob(identifier); !ended) {
    add(ended.error());
    return outcome;  // The program may run, and uses the module.
  }
  for (const std::string& module : std::views::reverse(*inserted)) {
    if (auto ended = environment_.modules.unload(module); !ended) add(ended.error());
  }
  return outcome;
}

// After a failed submission. The host may have made it and ended before its answer.
bool LinuxKernelExtensions::mayHaveBeenSubmitted(const std::string& identifier) {
  const Value job = copyJob(identifier);
  return !job.isNil() && job[kJobProgramChangedKey] != Value(true);
}

Result<void> LinuxKernelExtensions::unload(const std::string& identifier) {
  const Value job = copyJob(identifier);
  if (isJobUnknown(job)) return std::unexpected(unknownJob(identifier));
  const std::optional<std::string> module = moduleOf(identifier, job);
  if (!job.isNil()) {
    const auto socket = connectToControl(environment_.controls, identifier);
    if (socket) {
      const auto prepared = (*socket)->prepareToUnload();
      // An extension that does not know this request can't be asked.
      if (!prepared && prepared.error().code == ErrorCode::kDenied &&
          prepared.error().osError != EOPNOTSUPP) {
        return std::unexpected(Error{ErrorCode::kDenied, prepared.error().osError,
                                     identifier + ": can't be unloaded"});
      }
    }
    if (auto removed = removeJob(identifier); !removed) return removed;
  }
  if (module && !environment_.modules.isBuiltIn(*module)) {
    const auto unloaded = environment_.modules.unload(*module);
    // Somebody else may have removed the module before.
    if (unloaded || job.isNil() || unloaded.error().code != ErrorCode::kNotFound) return unloaded;
  }
  if (!job.isNil()) return {};
  return std::unexpected(Error{ErrorCode::kNotFound, 0, identifier + ": is not loaded"});
}

// The job knows its module also when the bundle has gone.
std::optional<std::string> LinuxKernelExtensions::moduleOf(const std::string& identifier,
                                                           const Value& job) {
  if (const std::string* module = job[kKernelModuleKey].string()) return *module;
  const auto bundle = findKextBundle(identifier, folders_);
  return bundle ? bundle->kernelModule : std::nullopt;
}

Result<bool> LinuxKernelExtensions::isLoaded(const KextBundle& bundle) {
  const Value job = copyJob(bundle.identifier);
  // An extension that may be running is neither trusted unchecked nor started a second time.
  if (isJobUnknown(job)) return std::unexpected(unknownJob(bundle.identifier));
  if (job.isNil()) return false;
  // The job waits for another submission: its program is no longer the verified one.
  if (job[kJobProgramChangedKey] == Value(true)) return false;
  return !bundle.kernelModule || environment_.modules.isLoaded(*bundle.kernelModule);
}

Result<std::optional<VerifiedFile>> LinuxKernelExtensions::checkSignature(
    const KextBundle& bundle) {
  // The check of a program includes the bundle around it.
  const std::string& code = bundle.programPath;
  const auto refuse = [&](const CodeSigningFailure& failure) {
    std::string why = fmt::format("{}: {} ({})", bundle.identifier, failure.reason, failure.status);
    return std::unexpected(verdictOf(failure) == CodeVerdict::kUnknown
                               ? uncheckedExtension(std::move(why))
                               : Error{ErrorCode::kDenied, 0, std::move(why)});
  };
  auto checked = environment_.signatures.SecStaticCodeCreateWithPath(code);
  if (!checked) return refuse(checked.error());
  const auto valid = checkCodeThatRuns(**checked);
  if (!valid) return refuse(valid.error());
  return (*checked)->verifiedFile();
}

Result<std::vector<std::string>> LinuxKernelExtensions::insertModule(const KextBundle& bundle) {
  if (!bundle.kernelModule) return {};
  return environment_.modules.load(*bundle.kernelModule);
}

Result<void> LinuxKernelExtensions::submitJob(const KextBundle& bundle,
                                              const std::optional<VerifiedFile>& program) {
  Dictionary job{{"Label", jobLabel(bundle.identifier)},
                 {"Program", bundle.programPath},
                 {"ProgramArguments", Array{bundle.programPath}},
                 {"KeepAlive", true},
                 {"ThrottleInterval", kThrottle},
                 {"ExitTimeOut", kExitTimeOut}};
  if (program) job.set(kJobVerifiedProgramKey, textOfVerifiedFile(*program));
  if (bundle.kernelModule) job.set(kKernelModuleKey, *bundle.kernelModule);
  const auto submitted = environment_.jobs.SMJobSubmit(kSMDomainSystemLaunchd, Value(job), nullptr);
  if (submitted) return {};
  return std::unexpected(extensionErrorOf(bundle.identifier, submitted.error()));
}

Result<void> LinuxKernelExtensions::removeJob(const std::string& identifier) {
  const auto removed = environment_.jobs.SMJobRemove(kSMDomainSystemLaunchd, jobLabel(identifier),
                                                     nullptr, /*wait=*/true);
  if (removed) return {};
  return std::unexpected(extensionErrorOf(identifier, removed.error()));
}

Result<void> LinuxKernelExtensions::countStart(const std::string& identifier) {
  const Instant now = environment_.loop.now();
  std::deque<Instant>& starts = starts_[identifier];
  while (!starts.empty() && now - starts.front() >= kStartsPeriod) starts.pop_front();
  if (starts.size() >= kMostStarts) {
    const auto wait =
        std::chrono::ceil<std::chrono::seconds>(kStartsPeriod - (now - starts.front()));
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0,
              fmt::format("{}: was started {} times within a minute; not again within {} s",
                          identifier, kMostStarts, wait.count())});
  }
  starts.push_back(now);
  return {};
}

Result<void> LinuxKernelExtensions::awaitControl(const std::string& identifier) {
  RunLoop& loop = environment_.loop;
  const Instant deadline = loop.now() + kControlWait;
  for (;;) {
    const auto socket = connectToControl(environment_.controls, identifier);
    if (socket) return {};
    if (loop.now() >= deadline) {
      const auto& [code, number, reason] = socket.error();
      std::string why = fmt::format("{}: its control does not listen after {} s: {}", identifier,
                                    kControlWait / 1s, reason);
      // Without a descriptor for a connection, nothing is known about the control.
      if (isShortage(number)) return std::unexpected(uncheckedExtension(std::move(why)));
      return std::unexpected(Error{code, number, std::move(why)});
    }
    loop.sleepFor(kUnloadingPause);
  }
}

Value LinuxKernelExtensions::copyJob(const std::string& identifier) {
  return environment_.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, jobLabel(identifier));
}

}  // namespace platform
