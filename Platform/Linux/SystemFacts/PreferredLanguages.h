#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

// The languages of this installation's users, the most preferred first; never empty. They come from
// the configuration, else from the system's locale (`etc/locale.conf` or `etc/default/locale` below
// the platform root), else it is English.
std::vector<std::string> preferredLanguages(const PlatformConfiguration& configuration);

// The languages that a locale file names, such as "de-AT" for LANG="de_AT.UTF-8": those of
// LANGUAGE, a list, before that of LANG. "C" and "POSIX" are no languages. Lines that are no
// assignment are ignored.
std::vector<std::string> languagesOfLocaleFile(std::string_view content);

}  // namespace platform
