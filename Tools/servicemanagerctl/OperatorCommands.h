#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl health | explain LABEL | explain --all | extensions": the service manager's
// view, which these commands only read.
class OperatorCommands {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit OperatorCommands(CLI::App& app);
  OperatorCommands(const OperatorCommands&) = delete;
  OperatorCommands& operator=(const OperatorCommands&) = delete;

  bool parsed() const { return health_->parsed() || explain_->parsed() || extensions_->parsed(); }

  // Runs the command and returns the exit status.
  int run(const DaemonClient::Environment& environment) const;

 private:
  // The text to print.
  Answer<std::string> health(DaemonClient& daemon) const;
  Answer<std::string> explain(DaemonClient& daemon) const;
  Answer<std::string> explainAll(DaemonClient& daemon) const;
  Answer<std::string> extensions(DaemonClient& daemon) const;

  CLI::App* health_;
  CLI::App* explain_;
  CLI::App* extensions_;
  bool json_ = false;
  bool openMetrics_ = false;
  bool all_ = false;
  bool notRunning_ = false;
  std::string label_;
};
