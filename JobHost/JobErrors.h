#pragma once

#include <string>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// An error as the job host's clients get it.
platform::NSError jobError(platform::LaunchdError code, std::string text);
// An error in the caller's input is kInvalidJob, a missing permission is kNotAuthorized, a bound of
// the host's own is kHostIsFull, all else is kInternal, for instance a process that could not be
// started, whatever the reason.
platform::NSError jobError(const platform::Error& error);

}  // namespace jobhost
