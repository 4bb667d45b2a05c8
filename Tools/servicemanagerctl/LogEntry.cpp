#include "Tools/servicemanagerctl/LogEntry.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "Platform/Linux/Logging/LogSinkText.h"
#include "Platform/Linux/Systemd/UnitNames.h"

using namespace platform;
using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kTimeSize = std::string_view("2026-01-02T03:04:05.678901Z").size();
constexpr std::string_view kJobHost = "jobhost";
constexpr int kLevelOfOutput = ASL_LEVEL_INFO;

template <typename Number>
std::optional<Number> numberIn(std::string_view text, int base = 10) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<WallTime> timeIn(std::string_view text) {
  if (text.size() != kTimeSize || text[10] != 'T' || text[19] != '.' || text.back() != 'Z')
    return std::nullopt;
  const auto year = numberIn<int>(text.substr(0, 4));
  const auto month = numberIn<unsigned>(text.substr(5, 2));
  const auto day = numberIn<unsigned>(text.substr(8, 2));
  const auto hours = numberIn<int>(text.substr(11, 2));
  const auto minutes = numberIn<int>(text.substr(14, 2));
  const auto seconds = numberIn<int>(text.substr(17, 2));
  const auto microseconds = numberIn<int>(text.substr(20, 6));
  if (!year || !month || !day || !hours || !minutes || !seconds || !microseconds)
    return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(*year), std::chrono::month(*month),
                                         std::chrono::day(*day)};
  // Other years do not fit into the clock's nanoseconds.
  if (!date.ok() || *year < 1970 || *year > 2260) return std::nullopt;
  return WallTime(std::chrono::sys_days(date)) + std::chrono::hours(*hours) +
         std::chrono::minutes(*minutes) + std::chrono::seconds(*seconds) +
         std::chrono::microseconds(*microseconds);
}

// The opposite of appendEscaped().
std::string unescaped(std::string_view text) {
  std::string plain;
  while (!text.empty()) {
    const std::size_t slash = std::min(text.find('\\'), text.size());
    plain += text.substr(0, slash);
    text.remove_prefix(slash);
    if (text.size() < 2) break;
    const char kind = text[1];
    std::size_t taken = 2;
    if (kind == 'x' && text.size() >= 4) {
      plain += static_cast<char>(numberIn<unsigned char>(text.substr(2, 2), 16).value_or('?'));
      taken = 4;
    } else {
      plain += kind == 'n' ? '\n' : kind == 'r' ? '\r' : kind == 't' ? '\t' : kind;
    }
    text.remove_prefix(taken);
  }
  return plain;
}

// Takes the text up to `end`, and removes both from `rest`.
std::optional<std::string_view> take(std::string_view& rest, std::string_view end) {
  const std::size_t at = rest.find(end);
  if (at == rest.npos) return std::nullopt;
  const std::string_view taken = rest.substr(0, at);
  rest.remove_prefix(at + end.size());
  return taken;
}

bool isOfLabel(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_' ||
         character == '-';
}

// Text, or the bytes of a text that is not UTF-8.
std::string textInField(const Json& field) {
  if (field.is_string()) return field.get<std::string>();
  std::string text;
  if (!field.is_array()) return text;
  for (const Json& byte : field) {
    if (byte.is_number_unsigned()) text += static_cast<char>(byte.get<unsigned>());
  }
  return text;
}

std::string fieldOf(const Json& entry, const char* name) {
  const auto found = entry.find(name);
  return found == entry.end() ? std::string() : textInField(*found);
}

// Whether systemd runs the service in this unit, or the job host. Only root makes units of the
// system.
bool isUnitOf(std::string_view unit, std::string_view label) {
  const std::string own = "vantor-" + escapedForUnitName(label);
  return unit == "vantor-jobhost.service" || unit == own + ".service" ||
         unit == own + "..abandons.service";
}

struct JobProcess {
  std::string_view label;
  std::int64_t process;
};

// The job and the process that a line of the job host is about: "job "LABEL": started process 7".
std::optional<JobProcess> jobIn(const LogEntry& entry) {
  std::string_view rest = entry.message;
  if (entry.speaker != kJobHost || !take(rest, "job \"")) return std::nullopt;
  const auto label = take(rest, "\": ");
  if (!label || !take(rest, "process ")) return std::nullopt;
  const auto process = numberIn<std::int64_t>(rest.substr(0, rest.find_first_not_of("0123456789")));
  if (!process) return std::nullopt;
  return JobProcess{*label, *process};
}

std::string writtenTime(WallTime time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return fmt::format("{:%FT%T}.{:06}Z", fmt::gmtime(seconds.time_since_epoch().count()),
                     std::chrono::duration_cast<std::chrono::microseconds>(time - seconds).count());
}

}  // namespace

std::optional<LogEntry> entryInLogLine(std::string_view line) {
  const auto written = take(line, " ");
  const auto time = written ? timeIn(*written) : std::nullopt;
  const auto host = take(line, " ");
  const auto ident = take(line, "[");
  const auto process = take(line, "] (");
  const auto facility = take(line, ") <");
  const auto level = take(line, "> ");
  if (!time || !host || !ident || !process || !facility || !level) return std::nullopt;
  const auto number = levelNamed(*level);
  const auto processNumber = numberIn<std::int64_t>(*process);
  if (!number || !processNumber) return std::nullopt;
  return LogEntry{*time,   LogEntry::Source::kLog, unescaped(*ident), *processNumber,
                  *number, unescaped(line)};
}

std::optional<LogEntry> entryInOutputLine(std::string_view line, const std::string& label) {
  const auto written = take(line, " ");
  const auto time = written ? timeIn(*written) : std::nullopt;
  if (!time) return std::nullopt;
  return LogEntry{*time, LogEntry::Source::kOutput, label, 0, kLevelOfOutput, unescaped(line)};
}

std::optional<LogEntry> entryInJournal(const std::string& line,
                                       const std::vector<std::string>& labels, std::int64_t owner) {
  const Json entry = Json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!entry.is_object()) return std::nullopt;
  const auto microseconds = numberIn<std::int64_t>(fieldOf(entry, "__REALTIME_TIMESTAMP"));
  if (!microseconds) return std::nullopt;
  LogEntry found{WallTime(std::chrono::microseconds(*microseconds)),
                 LogEntry::Source::kLog,
                 fieldOf(entry, "SYSLOG_IDENTIFIER"),
                 numberIn<std::int64_t>(fieldOf(entry, "_PID")).value_or(0),
                 numberIn<int>(fieldOf(entry, "PRIORITY")).value_or(kLevelOfOutput),
                 fieldOf(entry, "MESSAGE")};
  const bool isOwners = numberIn<std::int64_t>(fieldOf(entry, "_UID")) == owner;
  if (isOwners) found.label = fieldOf(entry, "VANTOR_LABEL");
  found.isTrusted = isOwners && (found.speaker != kJobHost || fieldOf(entry, "_COMM") == kJobHost);
  const bool isWanted = std::ranges::find(labels, found.speaker) != labels.end();
  if (isWanted && fieldOf(entry, "_TRANSPORT") == "stdout" &&
      (isOwners || isUnitOf(fieldOf(entry, "_SYSTEMD_UNIT"), found.speaker))) {
    found.source = LogEntry::Source::kOutput;
  }
  return found;
}

bool mentions(std::string_view text, std::string_view label) {
  for (std::size_t at = text.find(label); at != text.npos; at = text.find(label, at + 1)) {
    const std::size_t end = at + label.size();
    const bool begins = at == 0 || !(isOfLabel(text[at - 1]) || text[at - 1] == '.');
    // A full stop may end a sentence.
    const bool goesOn = end < text.size() &&
                        (isOfLabel(text[end]) ||
                         (text[end] == '.' && end + 1 < text.size() && isOfLabel(text[end + 1])));
    if (begins && !goesOn) return true;
  }
  return false;
}

void LogFilter::learn(const LogEntry& entry) {
  const auto job = entry.isTrusted ? jobIn(entry) : std::nullopt;
  if (!job) return;
  if (std::ranges::find(labels, job->label) != labels.end()) {
    processes.insert(job->process);
  } else {
    processes.erase(job->process);
  }
}

bool LogFilter::takes(const LogEntry& entry) const {
  const auto isWanted = [&](std::string_view label) {
    return std::ranges::find(labels, label) != labels.end();
  };
  if (entry.level > level || (since && entry.time < *since)) return false;
  if (labels.empty()) return true;
  if (entry.source == LogEntry::Source::kOutput) return isWanted(entry.speaker);
  if (isWanted(entry.label) || processes.contains(entry.process)) return true;
  return entry.isTrusted && std::ranges::any_of(labels, [&](const std::string& wanted) {
           return mentions(entry.message, wanted);
         });
}

std::string asText(const LogEntry& entry) {
  std::string text = writtenTime(entry.time) + " ";
  appendEscaped(text, entry.speaker);
  if (entry.source == LogEntry::Source::kLog) {
    text += fmt::format("[{}] <{}> ", entry.process,
                        levelName(static_cast<AslLevel>(std::clamp(entry.level, 0, 7))));
  } else {
    text += ": ";
  }
  appendEscaped(text, entry.message);
  return text + "\n";
}

Json asJson(const LogEntry& entry) {
  const bool isOutput = entry.source == LogEntry::Source::kOutput;
  Json json{{"time", writtenTime(entry.time)}, {"source", isOutput ? "output" : "log"}};
  json[isOutput ? "label" : "speaker"] = entry.speaker;
  json["pid"] = entry.process == 0 ? Json() : Json(entry.process);
  json["level"] = entry.level;
  json["message"] = entry.message;
  return json;
}

std::optional<int> levelNamed(std::string_view name) {
  constexpr std::string_view kShortNames[] = {"emerg",   "alert",  "crit", "err",
                                              "warning", "notice", "info", "debug"};
  std::string lower(name);
  std::ranges::transform(lower, lower.begin(), [](unsigned char character) {
    return static_cast<char>(std::tolower(character));
  });
  for (int level = 0; level <= 7; ++level) {
    std::string whole(levelName(static_cast<AslLevel>(level)));
    whole.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(whole.front())));
    if (lower == whole || lower == kShortNames[level]) return level;
  }
  const auto number = numberIn<int>(name);
  return number && *number >= 0 && *number <= 7 ? number : std::nullopt;
}
