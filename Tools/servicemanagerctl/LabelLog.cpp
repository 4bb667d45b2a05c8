#include "Tools/servicemanagerctl/LabelLog.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/Linux/Logging/ServiceOutputFile.h"
#include "Tools/servicemanagerctl/JournalSource.h"
#include "Tools/servicemanagerctl/LogFileSource.h"

using namespace platform;

namespace {

std::vector<std::unique_ptr<LogSource>> sourcesOf(const PlatformConfiguration& configuration,
                                                  const LogFilter& filter) {
  using Configuration = PlatformConfiguration;
  std::vector<std::unique_ptr<LogSource>> sources;
  const bool isLogInJournal = configuration.logSink == Configuration::LogSink::kJournal;
  if (isLogInJournal || configuration.serviceOutput == Configuration::ServiceOutput::kJournal)
    sources.push_back(std::make_unique<JournalSource>(filter.labels, isLogInJournal));
  if (configuration.logSink == Configuration::LogSink::kFile) {
    sources.push_back(std::make_unique<LogFileSource>(logFile(configuration.root), entryInLogLine));
  }
  // There may be files from before the configuration was changed.
  for (const std::string& label : filter.labels) {
    sources.push_back(std::make_unique<LogFileSource>(
        serviceOutputFile(configuration.root, label),
        [label](std::string_view line) { return entryInOutputLine(line, label); }));
  }
  return sources;
}

// Entries of the same time keep the order of their sources.
std::vector<LogEntry> inOrderOfTime(std::vector<LogEntry> entries) {
  std::multimap<WallTime, LogEntry> ordered;
  for (LogEntry& entry : entries) {
    const WallTime time = entry.time;
    ordered.emplace(time, std::move(entry));
  }
  entries.clear();
  for (auto& [time, entry] : ordered) entries.push_back(std::move(entry));
  return entries;
}

}  // namespace

LabelLog::LabelLog(const PlatformConfiguration& configuration, LogFilter filter)
    : filter_(std::move(filter)), sources_(sourcesOf(configuration, filter_)) {}

Result<std::vector<LogEntry>> LabelLog::read(std::size_t most) {
  std::vector<LogEntry> entries;
  for (const auto& source : sources_) {
    auto read = source->read(filter_, most);
    if (!read) return read;
    std::ranges::move(*read, std::back_inserter(entries));
  }
  entries = inOrderOfTime(std::move(entries));
  if (entries.size() > most)
    entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(most));
  return entries;
}

Result<std::vector<LogEntry>> LabelLog::readNew() {
  std::vector<LogEntry> entries;
  for (const auto& source : sources_) {
    auto read = source->readNew(filter_);
    if (!read) return read;
    std::ranges::move(*read, std::back_inserter(entries));
  }
  return inOrderOfTime(std::move(entries));
}
