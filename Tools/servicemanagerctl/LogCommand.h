#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/LabelLog.h"
#include "Tools/servicemanagerctl/LogEntry.h"

// "servicemanagerctl log [-f]": the log file of the platform, or where the log goes instead.
// "servicemanagerctl log LABEL... [-f] [--since TIME] [--this-run] [--level LEVEL] [--json]": the
// lines about these services, and their output.
class LogCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit LogCommand(CLI::App& app);
  LogCommand(const LogCommand&) = delete;
  LogCommand& operator=(const LogCommand&) = delete;

  bool parsed() const { return log_->parsed(); }
  // Whether it shows the log's file as it stands, without a service manager.
  bool isWholeFile() const;

  // Returns the exit status; with -f only when the output's reader has gone. The configuration
  // names the log sink.
  int run(const platform::PlatformConfiguration& configuration, platform::RunLoop& loop) const;

  // The same for selected lines.
  int run(const DaemonClient::Environment& environment) const;

 private:
  Answer<LogFilter> filter(const DaemonClient::Environment& environment) const;
  Answer<int> show(const DaemonClient::Environment& environment) const;
  Answer<int> followEntries(LabelLog& log, platform::RunLoop& loop) const;
  bool printEntries(const std::vector<LogEntry>& entries) const;

  CLI::App* log_;
  bool follow_ = false;
  std::vector<std::string> labels_;
  std::string since_;
  bool thisRun_ = false;
  std::string level_;
  std::string json_;
};
