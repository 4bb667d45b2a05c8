#include "Tools/servicemanagerctl/LabelLog.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <map>
#include <utility>

#include <sys/stat.h>

#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/Linux/Logging/ServiceOutputFile.h"
#include "Tools/servicemanagerctl/JournalSource.h"
#include "Tools/servicemanagerctl/LogFileSource.h"
#include "Tools/servicemanagerctl/Output.h"

using namespace platform;

namespace {

// The user of the service manager and the job host.
std::int64_t ownerOf(const std::string& root) {
  struct stat status{};
  return ::stat(root.c_str(), &status) == 0 ? status.st_uid : 0;
}

std::vector<std::unique_ptr<LogSource>> sourcesOf(const PlatformConfiguration& configuration,
                                                  const LogFilter& filter) {
  using Configuration = PlatformConfiguration;
  std::vector<std::unique_ptr<LogSource>> sources;
  const bool isLogInJournal = configuration.logSink == Configuration::LogSink::kJournal;
  if (isLogInJournal || configuration.serviceOutput == Configuration::ServiceOutput::kJournal) {
    sources.push_back(std::make_unique<JournalSource>(filter.labels, isLogInJournal,
                                                      ownerOf(configuration.root)));
  }
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

Result<std::vector<LogEntry>> LabelLog::fromAll(const Read& read) {
  std::vector<LogEntry> entries;
  for (auto source = sources_.begin(); source != sources_.end();) {
    auto part = read(**source);
    // A member of the product's group may read some of them.
    if (!part && part.error().osError == EACCES && sources_.size() > 1) {
      remark("some lines are not shown: " + describe(part.error()));
      source = sources_.erase(source);
      continue;
    }
    if (!part) return part;
    std::ranges::move(*part, std::back_inserter(entries));
    ++source;
  }
  return inOrderOfTime(std::move(entries));
}

Result<std::vector<LogEntry>> LabelLog::read(std::size_t most) {
  auto entries = fromAll([&](LogSource& source) { return source.read(filter_, most); });
  if (entries && entries->size() > most)
    entries->erase(entries->begin(), entries->end() - static_cast<std::ptrdiff_t>(most));
  return entries;
}

Result<std::vector<LogEntry>> LabelLog::readNew() {
  return fromAll([&](LogSource& source) { return source.readNew(filter_); });
}
