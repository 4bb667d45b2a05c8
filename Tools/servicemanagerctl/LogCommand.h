#pragma once

#include <CLI/CLI.hpp>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

// "servicemanagerctl log [-f]": the log file of the platform, or where the log goes instead.
class LogCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit LogCommand(CLI::App& app);
  LogCommand(const LogCommand&) = delete;
  LogCommand& operator=(const LogCommand&) = delete;

  bool parsed() const { return log_->parsed(); }

  // Returns the exit status; with -f only when the output's reader has gone. The configuration
  // names the log sink.
  int run(const platform::PlatformConfiguration& configuration, platform::RunLoop& loop) const;

 private:
  CLI::App* log_;
  bool follow_ = false;
};
