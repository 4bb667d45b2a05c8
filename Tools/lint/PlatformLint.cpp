#include "Tools/lint/PlatformLint.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Texts/QuotedText.h"
#include "Tools/lint/KeyLint.h"

namespace lint {
namespace {

using platform::Dictionary;
using platform::parsePlatformConfiguration;

// Below this level of syslog errors are left out.
constexpr int kLevelOfErrors = 3;

// The reader begins its texts with the file's name, which the finding has already.
std::string withoutFile(std::string text) {
  if (text.starts_with(": ")) text.erase(0, 2);
  if (text.starts_with("key ")) text.erase(0, 4);
  return text;
}

void checkPlatformKey(const Node& node, const std::vector<std::string_view>& known,
                      Findings& findings) {
  if (std::ranges::find(known, node.name) == known.end()) {
    findings.atKey(node, kUnknownPlatformKey,
                   fmt::format("unknown key {}{}; no program of the product starts with it",
                               platform::quotedInMessage(node.name), suggestion(node.name, known)));
    return;
  }
  const auto parsed = parsePlatformConfiguration(Dictionary{{node.name, node.value}}, "", "/");
  if (!parsed) {
    findings.atValue(node, kRefusedPlatformValue, withoutFile(parsed.error().context));
    return;
  }
  for (const std::string& warning : parsed->warnings) {
    findings.atValue(node, kIgnoredEntry, withoutFile(warning));
  }
  if (node.name == "LogLevel" && parsed->logLevel < kLevelOfErrors) {
    findings.atValue(node, kErrorsAreNotLogged,
                     fmt::format("\"LogLevel\" {} leaves out errors", parsed->logLevel));
  }
}

void checkReleases(const Node& configuration, Findings& findings) {
  Dictionary withoutVersion = *configuration.value.dictionary();
  if (!withoutVersion.remove("OSVersion")) return;
  const auto given = parsePlatformConfiguration(configuration.value, "", "/");
  const auto derived = parsePlatformConfiguration(withoutVersion, "", "/");
  if (!given || !derived) return;
  const bool isSame = std::pair(given->osVersion.majorVersion, given->osVersion.minorVersion) ==
                      std::pair(derived->osVersion.majorVersion, derived->osVersion.minorVersion);
  if (isSame) return;
  findings.atValue(childOf(configuration, "OSVersion"), kContradictoryRelease,
                   fmt::format("release {}.{} does not belong to kernel {}, which is that of {}.{}",
                               given->osVersion.majorVersion, given->osVersion.minorVersion,
                               given->kernelRelease, derived->osVersion.majorVersion,
                               derived->osVersion.minorVersion));
}

}  // namespace

void checkPlatformConfiguration(const Node& configuration, Findings& findings) {
  const std::vector<std::string_view> known = platform::platformConfigurationKeys();
  for (const Node& node : childrenOf(configuration)) checkPlatformKey(node, known, findings);
  checkReleases(configuration, findings);
}

}  // namespace lint
