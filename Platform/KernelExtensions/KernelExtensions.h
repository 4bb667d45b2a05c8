#pragma once

#include <string>
#include <vector>

#include "Platform/Values/Dictionary.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Keys of what is known of a loaded extension.
inline constexpr char kOSBundlePathKey[] = "OSBundlePath";  // of the extension's bundle
// Only of a user-space extension: 0 while it has none, since it crashed and is to be started again.
inline constexpr char kOSBundleProcessKey[] = "PID";

// The system's extensions: bundles NAME.kext in Library/Extensions of the platform root, or in the
// program's own resources, known by their "CFBundleIdentifier". One whose Info.plist names a
// "CFBundleExecutable" is a user-space extension and runs as a job, which outlives the caller; one
// that names an "OSKernelModule" is a module of the kernel.
//
// Everything belongs to the run loop's thread and blocks it for a bounded time. An error names the
// extension and the reason.
class KernelExtensions {
 public:
  virtual ~KernelExtensions() = default;

  // Where the extension lies. kNotFound where there is none of this identifier (the error names a
  // bundle that could not be read), kInvalid where two bundles of one folder claim it. Says nothing
  // of its signature.
  virtual Result<std::string> KextManagerCreateURLForBundleIdentifier(
      const std::string& identifier) = 0;

  // Whether loading would take the extension for what was signed. Loads nothing.
  virtual Result<void> OSKextAuthenticate(const std::string& identifier) = 0;

  // Loads the extension, after its signature has been checked. Also succeeds where it is loaded,
  // and in either case only once its control can be connected to, which is waited for up to 5
  // seconds. What this call has started is ended again where it fails. `folders` are looked into
  // besides, each a bundle or a folder of bundles.
  virtual Result<void> KextManagerLoadKextWithIdentifier(
      const std::string& identifier, const std::vector<std::string>& folders) = 0;

  // Unloads the extension. Fails where it is not loaded (kNotFound), and where it is in use
  // (kDenied, EBUSY); an extension that answers nobody is unloaded by force.
  virtual Result<void> KextManagerUnloadKextWithIdentifier(const std::string& identifier) = 0;

  // What is known of those of the extensions that are loaded: a dictionary each, by identifier,
  // also where what lies on the disk has changed since. An empty one for each of which can't be
  // told whether it is loaded (isKextUnknown()).
  virtual Dictionary KextManagerCopyLoadedKextInfo(const std::vector<std::string>& identifiers) = 0;
};

// Whether this entry of KextManagerCopyLoadedKextInfo() says only that it can't be told.
inline bool isKextUnknown(const Value& information) {
  return information.dictionary() && information.dictionary()->empty();
}

}  // namespace platform
