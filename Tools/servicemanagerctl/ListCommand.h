#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/ServiceTable.h"
#include "Tools/servicemanagerctl/ServicesReport.h"

// "servicemanagerctl list [LABEL...]", and "is-running LABEL..." and "is-failed LABEL...", which
// tell by their exit status.
class ListCommand {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit ListCommand(CLI::App& app);
  ListCommand(const ListCommand&) = delete;
  ListCommand& operator=(const ListCommand&) = delete;

  bool parsed() const { return list_->parsed() || isRunning_->parsed() || isFailed_->parsed(); }

  // Runs the command and returns the exit status.
  int run(const DaemonClient::Environment& environment) const;

 private:
  Answer<int> list(const DaemonClient::Environment& environment) const;
  Answer<int> judge(const DaemonClient::Environment& environment) const;
  Answer<ServiceFields> fields() const;
  bool isSelected(const ServiceState& service) const;

  CLI::App* list_;
  CLI::App* isRunning_;
  CLI::App* isFailed_;
  std::vector<std::string> labels_;
  std::string fields_;  // their names, with a comma between
  std::string type_;
  bool json_ = false;
  bool wide_ = false;
  bool value_ = false;
  bool failed_ = false;
  bool quiet_ = false;
};
