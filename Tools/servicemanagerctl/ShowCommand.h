#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl show LABEL".
class ShowCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit ShowCommand(CLI::App& app);
  ShowCommand(const ShowCommand&) = delete;
  ShowCommand& operator=(const ShowCommand&) = delete;

  bool parsed() const { return show_->parsed(); }

  // Runs the command and returns the exit status.
  int run(const DaemonClient::Environment& environment) const;

 private:
  Answer<std::string> show(const DaemonClient::Environment& environment) const;

  CLI::App* show_;
  std::string label_;
  bool json_ = false;
};
