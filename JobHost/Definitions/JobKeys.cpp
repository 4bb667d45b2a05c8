// One file, because it is one table: each key and its reader.

#include "JobHost/Definitions/JobKeys.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>

#include <fmt/format.h>
#include <sys/resource.h>

#include "JobHost/Definitions/JobDefinitionLimits.h"
#include "JobHost/Definitions/UnsupportedKeys.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::quotedInMessage;
using platform::Value;
using namespace std::string_view_literals;

constexpr int kLeastNice = -20;
constexpr int kMostNice = 19;
// As far as launchd's numbers go. The kernel's end one below.
constexpr int kMostAcceptedNice = 20;
constexpr std::int64_t kMaximumUmask = 0777;

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7f;
}

bool isPlainText(const std::string& text, std::size_t maximumBytes) {
  return !text.empty() && text.size() <= maximumBytes && std::ranges::none_of(text, isControl);
}

bool holdsZero(const std::string& text) { return text.find('\0') != text.npos; }

Fault takeLabel(const Value& value, JobDefinition& definition) {
  const std::string* label = value.string();
  if (!label || !isPlainText(*label, kMaximumLabelBytes)) {
    return mismatch(
        fmt::format("a string of 1 to {} bytes without control characters", kMaximumLabelBytes),
        value);
  }
  definition.label = *label;
  return std::nullopt;
}

Fault takePath(const Value& value, std::string& path) {
  const std::string* text = value.string();
  if (!text || !text->starts_with('/') || text->size() > kMaximumPathBytes || holdsZero(*text)) {
    return mismatch(fmt::format("an absolute path of at most {} bytes", kMaximumPathBytes), value);
  }
  path = *text;
  return std::nullopt;
}

template <std::string JobDefinition::* member>
Fault takePathOf(const Value& value, JobDefinition& definition) {
  return takePath(value, definition.*member);
}

Fault takeRootDirectory(const Value& value, JobDefinition& definition) {
  return takePath(value, definition.rootDirectory.emplace());
}

Fault takeArguments(const Value& value, JobDefinition& definition) {
  const Array* arguments = value.array();
  if (!arguments) return mismatch("an array of strings", value);
  if (arguments->size() > kMaximumArguments) {
    return fmt::format("expected at most {} arguments, found {}", kMaximumArguments,
                       arguments->size());
  }
  for (std::size_t i = 0; i < arguments->size(); ++i) {
    const Value& argument = (*arguments)[i];
    const std::string* text = argument.string();
    if (!text || holdsZero(*text) || text->size() > kMaximumArgumentBytes) {
      return fmt::format("argument {}: {}", i,
                         mismatch(fmt::format("a string of at most {} bytes without zero bytes",
                                              kMaximumArgumentBytes),
                                  argument));
    }
    definition.arguments.push_back(*text);
  }
  return std::nullopt;
}

template <std::optional<std::string> JobDefinition::* member>
Fault takeAccount(const Value& value, JobDefinition& definition) {
  const std::string* name = value.string();
  if (!name || !isPlainText(*name, kMaximumUserNameBytes) || name->find(':') != name->npos) {
    return mismatch(fmt::format("a name of 1 to {} bytes without colons and control characters",
                                kMaximumUserNameBytes),
                    value);
  }
  definition.*member = *name;
  return std::nullopt;
}

Fault takeEnvironment(const Value& value, JobDefinition& definition) {
  const Dictionary* variables = value.dictionary();
  if (!variables) return mismatch("a dictionary of strings", value);
  if (variables->size() > kMaximumEnvironmentVariables) {
    return fmt::format("expected at most {} variables, found {}", kMaximumEnvironmentVariables,
                       variables->size());
  }
  for (const auto& [name, content] : *variables) {
    if (name.empty() || name.find('=') != name.npos || holdsZero(name)) {
      return fmt::format("expected names of variables without \"=\" and zero bytes, found {}",
                         quotedInMessage(name));
    }
    const std::string* text = content.string();
    if (!text || holdsZero(*text) || name.size() + 1 + text->size() > kMaximumArgumentBytes) {
      return fmt::format(
          "variable {}: {}", quotedInMessage(name),
          mismatch(fmt::format("a string without zero bytes, with its name at most {} bytes",
                               kMaximumArgumentBytes),
                   content));
    }
    definition.environment.emplace_back(name, *text);
  }
  return std::nullopt;
}

// Parses a mode as C does: octal after a leading 0, hexadecimal after 0x.
std::optional<std::int64_t> numberOfMode(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.starts_with('0')) {
    base = 8;
  }
  std::uint32_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || stop != text.data() + text.size()) return std::nullopt;
  return number;
}

Fault takeUmask(const Value& value, JobDefinition& definition) {
  const auto mask = value.string() ? numberOfMode(*value.string()) : value.integer();
  if (!mask || *mask < 0 || *mask > kMaximumUmask) {
    return mismatch("an integer from 0 to 511, or a string with one as in C (\"022\")", value);
  }
  definition.umask = static_cast<mode_t>(*mask);
  return std::nullopt;
}

Fault takeNice(const Value& value, JobDefinition& definition) {
  const auto nice = value.integer();
  if (!nice || *nice < kLeastNice || *nice > kMostAcceptedNice) {
    return mismatch(fmt::format("an integer from {} to {}", kLeastNice, kMostAcceptedNice), value);
  }
  definition.nice = std::min(static_cast<int>(*nice), kMostNice);
  return std::nullopt;
}

struct NamedProcessType {
  std::string_view name;
  ProcessType type;
};

constexpr std::array kProcessTypes{
    NamedProcessType{"Background", ProcessType::kBackground},
    NamedProcessType{"Standard", ProcessType::kStandard},
    NamedProcessType{"Adaptive", ProcessType::kAdaptive},
    NamedProcessType{"Interactive", ProcessType::kInteractive},
};

Fault takeProcessType(const Value& value, JobDefinition& definition) {
  const std::string* const name = value.string();
  const auto known =
      name ? std::ranges::find(kProcessTypes, *name, &NamedProcessType::name) : kProcessTypes.end();
  if (known == kProcessTypes.end()) {
    return mismatch("\"Background\", \"Standard\", \"Adaptive\" or \"Interactive\"", value);
  }
  definition.processType = known->type;
  return std::nullopt;
}

struct NamedResource {
  std::string_view name;
  int resource;
};

constexpr std::array kResources{
    NamedResource{"Core", RLIMIT_CORE},
    NamedResource{"CPU", RLIMIT_CPU},
    NamedResource{"Data", RLIMIT_DATA},
    NamedResource{"FileSize", RLIMIT_FSIZE},
    NamedResource{"MemoryLock", RLIMIT_MEMLOCK},
    NamedResource{"NumberOfFiles", RLIMIT_NOFILE},
    NamedResource{"NumberOfProcesses", RLIMIT_NPROC},
    NamedResource{"ResidentSetSize", RLIMIT_RSS},
    NamedResource{"Stack", RLIMIT_STACK},
};

template <std::optional<rlim_t> ResourceLimit::* member>
Fault takeLimits(const Value& value, JobDefinition& definition) {
  const Dictionary* limits = value.dictionary();
  if (!limits) return mismatch("a dictionary of integers", value);
  for (const auto& [name, number] : *limits) {
    const auto known = std::ranges::find(kResources, name, &NamedResource::name);
    if (known == kResources.end()) {
      std::vector<std::string_view> names;
      for (const NamedResource& resource : kResources) names.push_back(resource.name);
      return fmt::format("expected limits of {}, found {}", fmt::join(names, ", "),
                         quotedInMessage(name));
    }
    if (!number.integer() || *number.integer() < 0) {
      return fmt::format("limit \"{}\": {}", name, mismatch("an integer of at least 0", number));
    }
    auto limit = std::ranges::find(definition.limits, known->resource, &ResourceLimit::resource);
    if (limit == definition.limits.end()) {
      definition.limits.push_back({.resource = known->resource, .soft = {}, .hard = {}});
      limit = definition.limits.end() - 1;
    }
    (*limit).*member = static_cast<rlim_t>(*number.integer());
  }
  return std::nullopt;
}

Fault takeKeepAlive(const Value& value, JobDefinition& definition) {
  if (value.boolean()) {
    definition.keepAlive.always = *value.boolean();
    return std::nullopt;
  }
  constexpr auto kExpected = "a boolean or a dictionary with \"SuccessfulExit\" or \"Crashed\""sv;
  const Dictionary* conditions = value.dictionary();
  if (!conditions || conditions->empty()) return mismatch(kExpected, value);
  for (const auto& [name, wanted] : *conditions) {
    if (const Fault fault = checkUnsupportedCondition(name)) {
      return fmt::format("condition {}: {}", quotedInMessage(name), *fault);
    }
    const bool isSuccess = name == "SuccessfulExit";
    if (!isSuccess && name != "Crashed") {
      return fmt::format("expected {}, found the condition {}", kExpected, quotedInMessage(name));
    }
    if (!wanted.boolean()) {
      return fmt::format("condition {}: {}", quotedInMessage(name), mismatch("a boolean", wanted));
    }
    (isSuccess ? definition.keepAlive.successfulExit : definition.keepAlive.crashed) =
        *wanted.boolean();
  }
  return std::nullopt;
}

template <bool JobDefinition::* member>
Fault takeSwitch(const Value& value, JobDefinition& definition) {
  if (!value.boolean()) return mismatch("a boolean", value);
  definition.*member = *value.boolean();
  return std::nullopt;
}

// Each job has a session and a session keyring of its own anyway.
Fault takeSessionCreate(const Value& value, JobDefinition&) {
  return value.boolean() ? Fault() : mismatch("a boolean", value);
}

template <platform::Duration JobDefinition::* member>
Fault takeSeconds(const Value& value, JobDefinition& definition) {
  const auto seconds = value.integer();
  if (!seconds || *seconds < 0 || *seconds > kMaximumJobSeconds) {
    return mismatch(fmt::format("an integer of seconds from 0 to {}", kMaximumJobSeconds), value);
  }
  definition.*member = std::chrono::seconds(*seconds);
  return std::nullopt;
}

Fault takeMachServices(const Value& value, JobDefinition& definition) {
  const Dictionary* services = value.dictionary();
  if (!services) return mismatch("a dictionary with the names of services", value);
  if (services->size() > kMaximumServices) {
    return fmt::format("expected at most {} services, found {}", kMaximumServices,
                       services->size());
  }
  for (const auto& [name, options] : *services) {
    // The name becomes a socket's file name.
    if (!isPlainText(name, kMaximumServiceNameBytes) || name.find('/') != name.npos ||
        name.starts_with('.')) {
      return fmt::format(
          "expected a service's name of 1 to {} bytes without slashes, control characters and a "
          "leading dot, found {}",
          kMaximumServiceNameBytes, quotedInMessage(name));
    }
    // The process gets the names of its sockets in one variable, with colons between them.
    if (services->size() > 1 && name.find(':') != name.npos) {
      return fmt::format("expected names without colons where there are several services, found {}",
                         quotedInMessage(name));
    }
    if (options.boolean() != true && !options.dictionary()) {
      return fmt::format("service {}: {}", quotedInMessage(name),
                         mismatch("true or a dictionary", options));
    }
    definition.machServices.push_back(name);
  }
  return std::nullopt;
}

Fault takeVerifiedProgram(const Value& value, JobDefinition& definition) {
  if (value.string()) definition.verifiedProgram = platform::verifiedFileIn(*value.string());
  if (definition.verifiedProgram) return std::nullopt;
  return mismatch("the state of a file that was verified", value);
}

struct Key {
  std::string_view name;
  Fault (*take)(const Value& value, JobDefinition& definition);
};

constexpr std::array kKeys{
    Key{"Label", takeLabel},
    Key{"Program", takePathOf<&JobDefinition::program>},
    Key{"ProgramArguments", takeArguments},
    Key{platform::kJobVerifiedProgramKey, takeVerifiedProgram},
    Key{"UserName", takeAccount<&JobDefinition::userName>},
    Key{"GroupName", takeAccount<&JobDefinition::groupName>},
    Key{"WorkingDirectory", takePathOf<&JobDefinition::workingDirectory>},
    Key{"RootDirectory", takeRootDirectory},
    Key{"EnvironmentVariables", takeEnvironment},
    Key{"StandardInPath", takePathOf<&JobDefinition::standardInPath>},
    Key{"StandardOutPath", takePathOf<&JobDefinition::standardOutPath>},
    Key{"StandardErrorPath", takePathOf<&JobDefinition::standardErrorPath>},
    Key{"Umask", takeUmask},
    Key{"Nice", takeNice},
    Key{"ProcessType", takeProcessType},
    Key{"LowPriorityIO", takeSwitch<&JobDefinition::lowPriorityIo>},
    Key{"LowPriorityBackgroundIO", takeSwitch<&JobDefinition::lowPriorityBackgroundIo>},
    Key{"SoftResourceLimits", takeLimits<&ResourceLimit::soft>},
    Key{"HardResourceLimits", takeLimits<&ResourceLimit::hard>},
    Key{"KeepAlive", takeKeepAlive},
    Key{"RunAtLoad", takeSwitch<&JobDefinition::runAtLoad>},
    Key{"AbandonProcessGroup", takeSwitch<&JobDefinition::abandonsProcessGroup>},
    Key{"InitGroups", takeSwitch<&JobDefinition::initGroups>},
    Key{"SessionCreate", takeSessionCreate},
    Key{"ThrottleInterval", takeSeconds<&JobDefinition::throttleInterval>},
    Key{"ExitTimeOut", takeSeconds<&JobDefinition::exitTimeOut>},
    Key{"MachServices", takeMachServices},
};

}  // namespace

Fault takeJobKey(std::string_view key, const Value& value, JobDefinition& definition) {
  const auto found = std::ranges::find(kKeys, key, &Key::name);
  if (found != kKeys.end()) return found->take(value, definition);
  if (const auto why = whyWithoutEffect(key)) {
    definition.remarks.push_back(fmt::format("key \"{}\": it has no effect: {}", key, *why));
  }
  return checkUnsupportedKey(key, value);
}

std::vector<std::string_view> honouredJobKeys() {
  std::vector<std::string_view> names;
  for (const Key& key : kKeys) names.push_back(key.name);
  return names;
}

std::string nameOfLimit(int resource) {
  const auto known = std::ranges::find(kResources, resource, &NamedResource::resource);
  return known == kResources.end() ? fmt::format("{}", resource) : std::string(known->name);
}

std::string mismatch(std::string_view expected, const Value& value) {
  std::string found;
  switch (value.type()) {
    case Value::Type::kNil:
      found = "nothing";
      break;
    case Value::Type::kNullMarker:
      found = "the null marker";
      break;
    case Value::Type::kBoolean:
      found = *value.boolean() ? "true" : "false";
      break;
    case Value::Type::kInteger:
      found = fmt::format("the integer {}", *value.integer());
      break;
    case Value::Type::kReal:
      found = fmt::format("the real {}", *value.real());
      break;
    case Value::Type::kString:
      found = fmt::format("the string {}", quotedInMessage(*value.string()));
      break;
    case Value::Type::kData:
      found = "data";
      break;
    case Value::Type::kDate:
      found = "a date";
      break;
    case Value::Type::kArray:
      found = value.array()->empty() ? "an empty array" : "an array";
      break;
    case Value::Type::kDictionary:
      found = value.dictionary()->empty() ? "an empty dictionary" : "a dictionary";
      break;
    case Value::Type::kRemoteObject:
      found = "a remote object";
      break;
  }
  return fmt::format("expected {}, found {}", expected, found);
}

}  // namespace jobhost
