#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Linux/KernelExtensions/KernelModules.h"
#include "Platform/Linux/KernelExtensions/KextBundle.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// Extensions as bundles on disk, run by the job host, some beside a module of the kernel. Failures
// are also logged, as "KextManager", because its callers report only that loading failed.
class LinuxKernelExtensions final : public KernelExtensions {
 public:
  // The limit of waiting for the control of a loaded extension.
  static constexpr Duration kControlWait = std::chrono::seconds(5);
  // An extension is started at most this often per period. Otherwise a caller that needs an
  // extension that never becomes usable would unload and start it without end.
  static constexpr std::size_t kMostStarts = 3;
  static constexpr Duration kStartsPeriod = std::chrono::minutes(1);

  // The objects that it uses; all of them outlive this.
  struct Environment {
    RunLoop& loop;
    Jobs& jobs;
    CodeSignatures& signatures;
    KernelControls& controls;
    KernelModules& modules;
    SystemLog& log;
  };

  // `folders` are those of findKextBundle().
  LinuxKernelExtensions(const Environment& environment, std::vector<std::string> folders);

  // The folders of the extensions of the platform at `root`, and of a program's own bundle.
  static std::vector<std::string> folders(const std::string& root, const std::string& resourcePath);
  // The label of a user-space extension's job. No service has such a label.
  static std::string jobLabel(const std::string& identifier) {
    return std::string(kExtensionJobPrefix) + identifier;
  }

  Result<std::string> KextManagerCreateURLForBundleIdentifier(
      const std::string& identifier) override;
  Result<void> OSKextAuthenticate(const std::string& identifier) override;
  Result<void> KextManagerLoadKextWithIdentifier(const std::string& identifier,
                                                 const std::vector<std::string>& folders) override;
  Result<void> KextManagerUnloadKextWithIdentifier(const std::string& identifier) override;
  Dictionary KextManagerCopyLoadedKextInfo(const std::vector<std::string>& identifiers) override;

 private:
  Result<void> logged(Result<void> result);
  Result<void> load(const std::string& identifier, const std::vector<std::string>& folders);
  Result<void> unload(const std::string& identifier);
  std::optional<std::string> moduleOf(const std::string& identifier, const Value& job);
  Result<bool> isLoaded(const KextBundle& bundle);
  Result<std::optional<VerifiedFile>> checkSignature(const KextBundle& bundle);
  // Returns the modules that it has inserted: none if the bundle has none, or if they were loaded.
  Result<std::vector<std::string>> insertModule(const KextBundle& bundle);
  Result<void> submitJob(const KextBundle& bundle, const std::optional<VerifiedFile>& program);
  bool mayHaveBeenSubmitted(const std::string& identifier);
  Result<void> removeJob(const std::string& identifier);
  Result<void> countStart(const std::string& identifier);
  Result<void> awaitControl(const std::string& identifier);
  Value copyJob(const std::string& identifier);

  const Environment environment_;
  const std::vector<std::string> folders_;
  RefusalLog failures_;
  std::map<std::string, std::deque<Instant>> starts_;  // the recent ones, by identifier
};

}  // namespace platform
