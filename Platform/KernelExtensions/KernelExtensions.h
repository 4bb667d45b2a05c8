#pragma once

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Values/Dictionary.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Keys of the information on a loaded extension.
inline constexpr char kOSBundlePathKey[] = "OSBundlePath";  // of the extension's bundle
// 0 while its program has no process, because it crashed and will be restarted.
inline constexpr char kOSBundleProcessKey[] = "PID";

// The label of the job of a user-space extension: this, and the extension's identifier.
inline constexpr std::string_view kExtensionJobPrefix = "kext.";

// The system's extensions: bundles NAME.kext in Library/Extensions of the platform root, or in the
// program's own resources, identified by their "CFBundleIdentifier". If its Info.plist
// has an "OSKernelModule", that module of the kernel is loaded first. The "CFBundleExecutable" runs
// as a job, which outlives the caller, and offers the control.
//
// All calls belong to the run loop's thread and block it for a limited time. An error names the
// extension and the reason.
class KernelExtensions {
 public:
  virtual ~KernelExtensions() = default;

  // The path of the extension. Fails with kNotFound if there is none with this identifier (the
  // error names a bundle that could not be read), and with kInvalid if two bundles of one folder
  // claim it. Does not check its signature.
  virtual Result<std::string> KextManagerCreateURLForBundleIdentifier(
      const std::string& identifier) = 0;

  // Checks the signature of the extension as loading would. Loads nothing. Fails with kDenied if
  // the signature is not valid; see isUnchecked().
  virtual Result<void> OSKextAuthenticate(const std::string& identifier) = 0;

  // Loads the extension after checking its signature. Also succeeds if it is loaded. In either case
  // it succeeds only when the control accepts connections, for which it waits up to 5 seconds. If
  // it fails, everything that this call has started is ended again. `folders` are searched, too,
  // each a bundle or a folder of bundles.
  virtual Result<void> KextManagerLoadKextWithIdentifier(
      const std::string& identifier, const std::vector<std::string>& folders) = 0;

  // Unloads the extension. Fails with kNotFound if it is not loaded, and with kDenied (EBUSY) if it
  // is in use. An extension that answers nobody is unloaded by force.
  virtual Result<void> KextManagerUnloadKextWithIdentifier(const std::string& identifier) = 0;

  // Information on those of the extensions that are loaded: a dictionary each, by identifier, even
  // if the files on disk have changed since. The dictionary is empty if it is unknown whether the
  // extension is loaded (isKextUnknown()).
  virtual Dictionary KextManagerCopyLoadedKextInfo(const std::vector<std::string>& identifiers) = 0;
};

// The failure of a check that could not be made, for lack of descriptors for instance. It says
// nothing about the extension, and a later check may succeed.
inline Error uncheckedExtension(std::string reason) {
  return {ErrorCode::kSystem, EAGAIN, std::move(reason)};
}
inline bool isUnchecked(const Error& failure) {
  return failure.code == ErrorCode::kSystem && failure.osError == EAGAIN;
}

// Whether this entry of KextManagerCopyLoadedKextInfo() means that the state is unknown.
inline bool isKextUnknown(const Value& information) {
  return information.dictionary() && information.dictionary()->empty();
}

}  // namespace platform
