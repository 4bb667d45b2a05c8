#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Tools/servicemanagerctl/LabelLog.h"
#include "Tools/servicemanagerctl/LogReader.h"

// A log file with its rotated ones, oldest first. Missing files are empty.
class LogFileSource final : public LogSource {
 public:
  using Parse = std::function<std::optional<LogEntry>(std::string_view line)>;

  LogFileSource(std::string path, Parse parse)
      : path_(std::move(path)), parse_(std::move(parse)), reader_(path_) {}

  platform::Result<std::vector<LogEntry>> read(LogFilter& filter, std::size_t most) override;
  platform::Result<std::vector<LogEntry>> readNew(LogFilter& filter) override;

 private:
  const std::string path_;
  const Parse parse_;
  LogReader reader_;
  std::string rest_;  // the beginning of a line whose end is not yet read
};
