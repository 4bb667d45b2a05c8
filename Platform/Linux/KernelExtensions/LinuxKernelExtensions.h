#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
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

// Extensions as bundles on disk, run by the job host or loaded into the kernel. What fails is also
// logged, as "KextManager": its callers tell people only that it failed.
class LinuxKernelExtensions final : public KernelExtensions {
 public:
  // A loaded extension's control is waited for this long.
  static constexpr Duration kControlWait = std::chrono::seconds(5);
  // An extension is not started more often than this within any such time: one that never becomes
  // usable would otherwise be unloaded and started again without end by whoever needs it.
  static constexpr std::size_t kMostStarts = 3;
  static constexpr Duration kStartsPeriod = std::chrono::minutes(1);

  // What it stands on; all of it outlives this.
  struct Environment {
    RunLoop& loop;
    Jobs& jobs;
    CodeSignatures& signatures;
    KernelControls& controls;
    KernelModules& modules;
    SystemLog& log;
  };

  // `folders` as findKextBundle() takes them.
  LinuxKernelExtensions(const Environment& environment, std::vector<std::string> folders);

  // Where the extensions of the platform at `root` lie, and those of a program's own bundle.
  static std::vector<std::string> folders(const std::string& root, const std::string& resourcePath);
  // The label of a user-space extension's job: no service's.
  static std::string jobLabel(const std::string& identifier) { return "kext." + identifier; }

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
  Result<bool> isLoaded(const KextBundle& bundle);
  Result<void> checkSignature(const KextBundle& bundle);
  Result<void> start(const KextBundle& bundle);
  Result<void> end(const KextBundle& bundle);
  Result<void> removeJob(const std::string& identifier);
  Result<void> countStart(const std::string& identifier);
  Result<void> awaitControl(const std::string& identifier);
  Value copyJob(const std::string& identifier);

  const Environment environment_;
  const std::vector<std::string> folders_;
  RefusalLog failures_;
  std::map<std::string, std::deque<Instant>> starts_;  // by identifier, those not long ago
};

}  // namespace platform
