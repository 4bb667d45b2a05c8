#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "Platform/SystemFacts/PlatformConfiguration.h"

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
  return {ErrorCode::kSystem, 0, fmt::format("{}: {}", identifier, error.localizedDescription)};
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
  return {pathBelowRoot(root, "Library/Extensions"), resourcePath};
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
    if (!job.isNil() && !isJobUnknown(job)) {
      loaded.set(identifier, jobInformationOf(job));
      continue;
    }
    const auto bundle = findKextBundle(identifier, folders_);
    if (bundle && bundle->kernelModule) {
      // For a module the kernel has the answer, even if the job host does not respond.
      if (environment_.modules.isLoaded(*bundle->kernelModule))
        loaded.set(identifier, Dictionary{{kOSBundlePathKey, bundle->path}});
    } else if (isJobUnknown(job)) {
      loaded.set(identifier, Dictionary());
    }
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
  if (auto started = start(*bundle, *program); !started) return started;
  auto listens = awaitControl(identifier);
  if (!listens) {
    if (auto ended = end(*bundle); !ended) {
      listens.error().context += fmt::format(" (and {})", describe(ended.error()));
    }
  }
  return listens;
}

Result<void> LinuxKernelExtensions::unload(const std::string& identifier) {
  const Value job = copyJob(identifier);
  if (!job.isNil() && !isJobUnknown(job)) {
    const auto socket = connectToControl(environment_.controls, identifier);
    if (socket) {
      const auto prepared = (*socket)->prepareToUnload();
      if (!prepared && prepared.error().code == ErrorCode::kDenied) {
        return std::unexpected(Error{ErrorCode::kDenied, prepared.error().osError,
                                     identifier + ": can't be unloaded"});
      }
    }
    return removeJob(identifier);
  }
  const auto bundle = findKextBundle(identifier, folders_);
  if (bundle && bundle->kernelModule) return environment_.modules.unload(*bundle->kernelModule);
  if (isJobUnknown(job)) return std::unexpected(unknownJob(identifier));
  return std::unexpected(Error{ErrorCode::kNotFound, 0, identifier + ": is not loaded"});
}

Result<bool> LinuxKernelExtensions::isLoaded(const KextBundle& bundle) {
  if (bundle.kernelModule) return environment_.modules.isLoaded(*bundle.kernelModule);
  const Value job = copyJob(bundle.identifier);
  // An extension that may be running is neither trusted unchecked nor started a second time.
  if (isJobUnknown(job)) return std::unexpected(unknownJob(bundle.identifier));
  return !job.isNil();
}

Result<std::optional<VerifiedFile>> LinuxKernelExtensions::checkSignature(
    const KextBundle& bundle) {
  // The check of a program includes the bundle around it.
  const std::string& code = bundle.programPath.value_or(bundle.path);
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

Result<void> LinuxKernelExtensions::start(const KextBundle& bundle,
                                          const std::optional<VerifiedFile>& program) {
  if (bundle.kernelModule) return environment_.modules.load(*bundle.kernelModule);
  Dictionary job{{"Label", jobLabel(bundle.identifier)},
                 {"Program", *bundle.programPath},
                 {"ProgramArguments", Array{*bundle.programPath}},
                 {"KeepAlive", true},
                 {"ThrottleInterval", kThrottle},
                 {"ExitTimeOut", kExitTimeOut}};
  if (program) job.set(kJobVerifiedProgramKey, textOfVerifiedFile(*program));
  const auto submitted = environment_.jobs.SMJobSubmit(kSMDomainSystemLaunchd, Value(job), nullptr);
  if (submitted) return {};
  return std::unexpected(extensionErrorOf(bundle.identifier, submitted.error()));
}

Result<void> LinuxKernelExtensions::end(const KextBundle& bundle) {
  return bundle.kernelModule ? environment_.modules.unload(*bundle.kernelModule)
                             : removeJob(bundle.identifier);
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
      return std::unexpected(
          Error{socket.error().code, socket.error().osError,
                fmt::format("{}: its control does not listen after {} s: {}", identifier,
                            kControlWait / 1s, socket.error().context)});
    }
    loop.sleepFor(kUnloadingPause);
  }
}

Value LinuxKernelExtensions::copyJob(const std::string& identifier) {
  return environment_.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, jobLabel(identifier));
}

}  // namespace platform
