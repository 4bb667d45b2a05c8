#pragma once

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl watch": each status notice of the service manager as it comes, until either of
// the two ends.
class WatchCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit WatchCommand(CLI::App& app);
  WatchCommand(const WatchCommand&) = delete;
  WatchCommand& operator=(const WatchCommand&) = delete;

  bool parsed() const { return watch_->parsed(); }

  // Returns the exit status.
  int run(const DaemonClient::Environment& environment) const;

 private:
  CLI::App* watch_;
  bool json_ = false;
};
