#pragma once

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/WatchReport.h"

// "servicemanagerctl watch": each event of the service manager as it happens. If the service
// manager ends, it waits for the next one.
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
  // Prints what comes until the connection fails: returns why, or an exit status if the reader has
  // gone. `last` is the number of the last event that was printed.
  Answer<int> follow(DaemonClient& daemon, platform::RunLoop& loop, std::int64_t& last) const;
  bool show(const WatchLine& line) const;

  CLI::App* watch_;
  std::string lines_;  // not empty: JSON
};
