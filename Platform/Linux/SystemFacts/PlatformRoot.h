#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

#include "Platform/Files/Bundle.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// The nearest folder above `executablePath` (absolute, without symbolic links) that holds
// etc/vantor/platform.plist, else "/". A folder without search permission is an error, because the
// answer would otherwise depend on the caller.
Result<std::string> platformRootOfExecutable(std::string_view executablePath);

// The absolute path, without symbolic links, of the platform root `folder`. Every root but "/" has
// its etc/vantor/platform.plist; without it the call fails with kInvalid. If the folder can't be
// found, it fails with kNotFound or another code.
Result<std::string> platformRootAt(const std::string& folder);

// The configuration of the platform at `root`, or the defaults if it has no file. The file decides
// to which bus and which users this process, possibly root, listens. It is therefore trusted only
// if it belongs to root or to the caller and nobody else can write it; otherwise the call fails
// with kDenied. It must be a regular file of at most 64 KiB. Every error says what to do.
Result<PlatformConfiguration> readPlatformConfiguration(const std::string& root);

// Whether a configuration file of this owner and mode may be trusted by `caller`.
Result<void> checkConfigurationTrust(const std::string& file, uid_t owner, mode_t mode,
                                     uid_t caller);

// The bundle of the program at `executablePath`. Its Info.plist may be missing; otherwise it must
// be a regular file that holds a dictionary, within the size limit of property lists.
Result<Bundle> bundleOfExecutable(std::string_view executablePath);

}  // namespace platform
