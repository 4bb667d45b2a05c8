#include "Platform/SystemFacts/PlatformConfiguration.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include <fmt/format.h>

namespace platform {
namespace {

constexpr std::size_t kMaximumPathBytes = 4095;
constexpr std::size_t kMaximumAccountBytes = 32;  // the limit of the system's tools
constexpr std::size_t kMaximumListeners = 64;
constexpr std::size_t kMaximumListenerBytes = 1024;
constexpr std::size_t kMaximumLanguages = 64;
constexpr std::size_t kMaximumLanguageBytes = 64;
constexpr std::size_t kMaximumAddressBytes = 1024;
constexpr std::size_t kMaximumDigits = 4;

// The marketing release is the kernel's major number minus this.
constexpr std::uint64_t kKernelMajorOfFirstRelease = 4;

using Configuration = PlatformConfiguration;

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7f;
}

bool isPlainText(const std::string& text, std::size_t maximumBytes) {
  return !text.empty() && text.size() <= maximumBytes && std::ranges::none_of(text, isControl);
}

// The numbers of a text like "15.0.0"; std::nullopt unless there are `least` to three, each of one
// to four digits.
std::optional<std::vector<std::uint64_t>> dottedNumbers(const std::string& text,
                                                        std::size_t least) {
  std::vector<std::uint64_t> numbers;
  const char* const end = text.data() + text.size();
  for (const char* at = text.data();; ++at) {
    std::uint64_t number = 0;
    const auto [stop, error] = std::from_chars(at, end, number);
    if (error != std::errc() || stop - at > static_cast<std::ptrdiff_t>(kMaximumDigits)) {
      return std::nullopt;
    }
    numbers.push_back(number);
    at = stop;
    if (at == end) break;
    if (*at != '.' || numbers.size() == 3) return std::nullopt;
  }
  if (numbers.size() < least) return std::nullopt;
  numbers.resize(3);
  return numbers;
}

bool readKernelRelease(const Value& value, Configuration& configuration) {
  if (!value.string()) return false;
  const auto numbers = dottedNumbers(*value.string(), 1);
  if (!numbers || (*numbers)[0] < kKernelMajorOfFirstRelease) return false;
  configuration.kernelRelease = *value.string();
  return true;
}

bool readOsVersion(const Value& value, Configuration& configuration) {
  if (!value.string()) return false;
  const auto numbers = dottedNumbers(*value.string(), 2);
  if (!numbers) return false;
  configuration.osVersion = {(*numbers)[0], (*numbers)[1], (*numbers)[2]};
  return true;
}

bool readUsersRoot(const Value& value, Configuration& configuration) {
  const std::string* path = value.string();
  if (!path || !isPlainText(*path, kMaximumPathBytes) || path->front() != '/') return false;
  configuration.usersRoot = *path;
  return true;
}

// Whether it can be the name of a user or a group, and of a folder.
bool isAccountName(const std::string* name) {
  return name && isPlainText(*name, kMaximumAccountBytes) && !name->starts_with('.') &&
         name->find_first_of(":/, ") == name->npos;
}

bool readGroup(const Value& value, Configuration& configuration) {
  if (!isAccountName(value.string())) return false;
  configuration.group = *value.string();
  return true;
}

// They stop the product and hand out its secret, so no configuration opens them to everybody.
constexpr std::array<std::string_view, 2> kNeverOpen{"com.vantor.servicemanager.installer.server",
                                                     "com.vantor.common.servicemanager.auth"};

bool readOpenListeners(const Value& value, Configuration& configuration) {
  const Array* listeners = value.array();
  if (!listeners || listeners->size() > kMaximumListeners) return false;
  for (const Value& listener : *listeners) {
    const std::string* name = listener.string();
    if (!name || !isPlainText(*name, kMaximumListenerBytes)) return false;
    if (std::ranges::find(kNeverOpen, *name) == kNeverOpen.end()) {
      configuration.openListeners.push_back(*name);
    } else {
      configuration.warnings.push_back(fmt::format(
          "key \"OpenListeners\": {} is never open to everybody; this entry is ignored", *name));
    }
  }
  return true;
}

bool readNameOwners(const Value& value, Configuration& configuration) {
  const Dictionary* owners = value.dictionary();
  if (!owners || owners->size() > kMaximumListeners) return false;
  for (const auto& [name, owner] : *owners) {
    if (!isPlainText(name, kMaximumListenerBytes) || !isAccountName(owner.string())) return false;
    configuration.nameOwners.emplace(name, *owner.string());
  }
  return true;
}

bool readLanguages(const Value& value, Configuration& configuration) {
  const Array* languages = value.array();
  if (!languages || languages->size() > kMaximumLanguages) return false;
  std::vector<std::string> names;
  for (const Value& language : *languages) {
    if (!language.string() || !isPlainText(*language.string(), kMaximumLanguageBytes)) return false;
    names.push_back(*language.string());
  }
  configuration.languages = std::move(names);
  return true;
}

bool readNotificationBus(const Value& value, Configuration& configuration) {
  const std::string* address = value.string();
  if (!address || !isPlainText(*address, kMaximumAddressBytes)) return false;
  const std::size_t colon = address->find(':');
  if (*address != "system" && (colon == 0 || colon == address->npos)) return false;
  configuration.notificationBus = *address;
  return true;
}

bool readJobBackend(const Value& value, Configuration& configuration) {
  if (value != Value("embedded") && value != Value("systemd")) return false;
  configuration.jobBackend = value == Value("systemd") ? Configuration::JobBackend::kSystemd
                                                       : Configuration::JobBackend::kEmbedded;
  return true;
}

bool readServiceOutput(const Value& value, Configuration& configuration) {
  const std::string* name = value.string();
  if (!name) return false;
  if (*name == "log") {
    configuration.serviceOutput = Configuration::ServiceOutput::kLog;
  } else if (*name == "journal") {
    configuration.serviceOutput = Configuration::ServiceOutput::kJournal;
  } else if (*name == "discard") {
    configuration.serviceOutput = Configuration::ServiceOutput::kDiscard;
  } else {
    return false;
  }
  return true;
}

bool readLogSink(const Value& value, Configuration& configuration) {
  const std::string* name = value.string();
  if (!name) return false;
  if (*name == "journal") {
    configuration.logSink = Configuration::LogSink::kJournal;
  } else if (*name == "syslog") {
    configuration.logSink = Configuration::LogSink::kSyslog;
  } else if (*name == "file") {
    configuration.logSink = Configuration::LogSink::kFile;
  } else {
    return false;
  }
  return true;
}

bool readLogLevel(const Value& value, Configuration& configuration) {
  const auto level = value.integer();
  if (!level || *level < 0 || *level > 7) return false;
  configuration.logLevel = static_cast<int>(*level);
  return true;
}

struct Key {
  std::string_view name;
  std::string_view expected;
  bool (*read)(const Value& value, Configuration& configuration);
};

constexpr std::array kKeys{
    Key{"KernelRelease",
        "a string of one to three numbers with dots between them, each of at most four digits, the "
        "first at least 4 (\"15.0.0\")",
        readKernelRelease},
    Key{"OSVersion",
        "a string of two or three numbers with dots between them, each of at most four digits "
        "(\"10.11.0\")",
        readOsVersion},
    Key{"UsersRoot", "an absolute path of at most 4095 bytes", readUsersRoot},
    Key{"Group", "the name of a group, of at most 32 bytes", readGroup},
    Key{"OpenListeners", "an array of at most 64 names of listeners, each of 1 to 1024 bytes",
        readOpenListeners},
    Key{"NameOwners",
        "a dictionary of at most 64 names of connections, each with the name of a user, of at most "
        "32 bytes",
        readNameOwners},
    Key{"Languages", "an array of at most 64 language codes, each a string of 1 to 64 bytes",
        readLanguages},
    Key{"NotificationBus", "\"system\" or a D-Bus address (\"unix:path=...\")",
        readNotificationBus},
    Key{"JobBackend", "\"embedded\" or \"systemd\"", readJobBackend},
    Key{"ServiceOutput", "\"log\", \"journal\" or \"discard\"", readServiceOutput},
    Key{"LogSink", "\"journal\", \"syslog\" or \"file\"", readLogSink},
    Key{"LogLevel", "an integer from 0 to 7", readLogLevel},
};

// A key or value from the file, escaped for a line of text.
std::string quotedExcerpt(std::string_view text) {
  constexpr std::size_t kShown = 64;
  std::string shown(text.substr(0, kShown));
  std::ranges::replace_if(shown, isControl, '?');
  return fmt::format("\"{}\"{}", shown, text.size() > kShown ? "..." : "");
}

// The value in the file, as the end of an error text.
std::string found(const Value& value) {
  if (value.string()) return quotedExcerpt(*value.string());
  if (value.integer()) return fmt::format("{}", *value.integer());
  return fmt::format("an {}", className(value));
}

OperatingSystemVersion versionOfKernelRelease(const std::string& release) {
  const auto numbers = dottedNumbers(release, 1);
  return {10, (*numbers)[0] - kKernelMajorOfFirstRelease, (*numbers)[1]};
}

}  // namespace

std::string pathBelowRoot(std::string_view root, std::string_view path) {
  return fmt::format("{}/{}", root == "/" ? "" : root, path);
}

PlatformConfiguration defaultPlatformConfiguration(std::string_view root) {
  PlatformConfiguration configuration;
  configuration.root = root;
  return configuration;
}

std::vector<std::string_view> platformConfigurationKeys() {
  std::vector<std::string_view> names;
  for (const Key& key : kKeys) names.push_back(key.name);
  return names;
}

Result<PlatformConfiguration> parsePlatformConfiguration(const Value& contents,
                                                         std::string_view file,
                                                         std::string_view root) {
  const auto invalid = [&](std::string text) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, fmt::format("{}: {}", file, text)});
  };
  const Dictionary* const entries = contents.dictionary();
  if (!entries) return invalid(fmt::format("expected a dictionary, found {}", found(contents)));

  PlatformConfiguration configuration = defaultPlatformConfiguration(root);
  for (const auto& [name, value] : *entries) {
    const auto key = std::ranges::find(kKeys, name, &Key::name);
    if (key == kKeys.end()) {
      return invalid(fmt::format("unknown key {}; expected one of: {}", quotedExcerpt(name),
                                 fmt::join(platformConfigurationKeys(), ", ")));
    }
    if (!key->read(value, configuration)) {
      return invalid(
          fmt::format("key \"{}\": expected {}, found {}", name, key->expected, found(value)));
    }
  }
  for (std::string& warning : configuration.warnings)
    warning = fmt::format("{}: {}", file, warning);
  if (!entries->contains("OSVersion")) {
    configuration.osVersion = versionOfKernelRelease(configuration.kernelRelease);
  }
  return configuration;
}

}  // namespace platform
