#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

// The languages of this installation's users, the most preferred first; never empty. Those of the
// configuration, else those of the system's locale (`etc/locale.conf` or `etc/default/locale` below
// the platform root), else English.
std::vector<std::string> preferredLanguages(const PlatformConfiguration& configuration);

// The languages that a locale file names, such as "de-AT" for LANG="de_AT.UTF-8": those of
// LANGUAGE, a list, before that of LANG. Neither "C" nor "POSIX" is one. Lines that are no
// assignment count for nothing.
std::vector<std::string> languagesOfLocaleFile(std::string_view content);

}  // namespace platform
