#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl health | explain LABEL | extensions": what the service manager thinks, without
// changing it.
class OperatorCommands {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit OperatorCommands(CLI::App& app);
  OperatorCommands(const OperatorCommands&) = delete;
  OperatorCommands& operator=(const OperatorCommands&) = delete;

  bool parsed() const { return health_->parsed() || explain_->parsed() || extensions_->parsed(); }

  // Does what was asked, and returns the exit status.
  int run(const DaemonClient::Environment& environment) const;

 private:
  // What to print.
  Answer<std::string> health(DaemonClient& daemon) const;
  Answer<std::string> explain(DaemonClient& daemon) const;
  Answer<std::string> extensions(DaemonClient& daemon) const;

  CLI::App* health_;
  CLI::App* explain_;
  CLI::App* extensions_;
  bool json_ = false;
  bool openMetrics_ = false;
  std::string label_;
};

// What to say of a label that no service has; `overview` is what the service manager tells of all.
Refusal unknownLabel(const std::string& label, const platform::Value& overview);
