#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"
#include "Tools/servicemanagerctl/LogEntry.h"

// Where lines come from: files, or the journal.
class LogSource {
 public:
  virtual ~LogSource() = default;

  // All entries until now, in the order of their source; the last `most` if there are more.
  virtual platform::Result<std::vector<LogEntry>> read(LogFilter& filter, std::size_t most) = 0;
  // The entries since the last call of either function. Does not wait.
  virtual platform::Result<std::vector<LogEntry>> readNew(LogFilter& filter) = 0;
};

// The log's lines about some services, and what these have printed, merged in time. Blocks only for
// the disk, and read() for the journal. A source that this user may not read is left out, with a
// remark, if there are others.
class LabelLog {
 public:
  // More entries are not kept in memory.
  static constexpr std::size_t kMostEntries = 100'000;

  // The sources are those of the configuration.
  LabelLog(const platform::PlatformConfiguration& configuration, LogFilter filter);
  LabelLog(std::vector<std::unique_ptr<LogSource>> sources, LogFilter filter)
      : filter_(std::move(filter)), sources_(std::move(sources)) {}

  // The last `most` entries until now.
  platform::Result<std::vector<LogEntry>> read(std::size_t most = kMostEntries);
  // The entries since the last call of either function.
  platform::Result<std::vector<LogEntry>> readNew();

 private:
  using Read = std::function<platform::Result<std::vector<LogEntry>>(LogSource& source)>;
  // In the order of time.
  platform::Result<std::vector<LogEntry>> fromAll(const Read& read);

  LogFilter filter_;
  std::vector<std::unique_ptr<LogSource>> sources_;
};
