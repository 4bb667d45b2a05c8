#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

#include "Platform/Files/Bundle.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// The nearest folder above `executablePath` (absolute, without symbolic links) that holds
// etc/vantor/platform.plist, else "/". A folder that can't be looked into is an error, since the
// answer would depend on who asks.
Result<std::string> platformRootOfExecutable(std::string_view executablePath);

// The platform root that `folder` is, absolute and without symbolic links. Every root but "/" has
// its etc/vantor/platform.plist: without it fails with kInvalid, with kNotFound or another kind
// where the folder can't be found.
Result<std::string> platformRootAt(const std::string& folder);

// The configuration of the platform at `root`, the defaults where it has no file. The file is
// trusted only if it belongs to root or to the caller and nobody else can write it: it decides
// which bus and which users this process, possibly root, listens to. It must be a regular file of
// at most 64 KiB. kDenied for one that is not trusted; every error says what to do.
Result<PlatformConfiguration> readPlatformConfiguration(const std::string& root);

// Whether a configuration file of this owner and mode may be trusted by `caller`.
Result<void> checkConfigurationTrust(const std::string& file, uid_t owner, mode_t mode,
                                     uid_t caller);

// The bundle of the running program whose path this is. Its Info.plist may be missing; else it must
// be a regular file that holds a dictionary, and no larger than a property list may be.
Result<Bundle> bundleOfExecutable(std::string_view executablePath);

}  // namespace platform
