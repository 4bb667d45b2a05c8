#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Values/Time.h"

// One line of the log, or of what a service has printed.
struct LogEntry {
  enum class Source { kLog, kOutput };

  platform::WallTime time;
  Source source = Source::kLog;
  std::string speaker;       // of the log's line, or the label of the service that has printed
  std::int64_t process = 0;  // of the speaker, if it is known
  int level = 6;
  std::string message;  // as it was logged
  std::string label{};  // of the service that the line is about, if the log has it
  // False for a line of the journal that another user may have written, so its text proves nothing.
  bool isTrusted = true;

  bool operator==(const LogEntry&) const = default;
};

// The entry in a line of the log's file (FileLogSink.h), without its end; nothing if it is none.
std::optional<LogEntry> entryInLogLine(std::string_view line);

// The same in the file of what a service has printed.
std::optional<LogEntry> entryInOutputLine(std::string_view line, const std::string& label);

// The same in a line of "journalctl -o json". The output of one of these labels has the label as
// its identifier. Any user can write any text and field but those that the journal itself adds, so
// lines count by these: `owner` is the user of the job host and the service manager.
std::optional<LogEntry> entryInJournal(const std::string& line,
                                       const std::vector<std::string>& labels, std::int64_t owner);

// The entries to show. It learns the processes of the services from the lines of the job host.
struct LogFilter {
  std::vector<std::string> labels{};  // of these services; without one all
  int level = 7;
  std::optional<platform::WallTime> since{};
  std::set<std::int64_t> processes{};  // of these services, whose own lines in the log count, too

  // Call this for the entries of a part before takes(): a service may be quicker than the line
  // about its start.
  void learn(const LogEntry& entry);
  bool takes(const LogEntry& entry) const;
};

// Whether the text names the label, which may be the beginning of a longer one.
bool mentions(std::string_view text, std::string_view label);

// A line with its end, without characters that steer a terminal.
std::string asText(const LogEntry& entry);
nlohmann::ordered_json asJson(const LogEntry& entry);

// The level of a name ("warning") or a number from 0 to 7.
std::optional<int> levelNamed(std::string_view name);
