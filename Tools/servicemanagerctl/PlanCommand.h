#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/Plan.h"

// "servicemanagerctl plan --catalogue FILE": the services that would run, and why. Only --diff asks
// the daemon.
class PlanCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit PlanCommand(CLI::App& app);
  PlanCommand(const PlanCommand&) = delete;
  PlanCommand& operator=(const PlanCommand&) = delete;

  bool parsed() const { return plan_->parsed(); }
  bool asksDaemon() const { return isDiff_; }

  // Run the command and return the exit status. `root` is the platform root whose release counts;
  // if it is empty, the one that this program lies in.
  int run(const std::string& root) const;
  int run(const DaemonClient::Environment& environment) const;

 private:
  // The content of the options and of their files.
  struct Situation {
    std::string product;
    std::int64_t kernelMajorNumber = 0;
    std::vector<PlannedService> services;
  };
  Answer<Situation> decide(const std::string& root) const;
  Answer<std::string> product(const platform::Value& catalogue) const;
  Answer<std::int64_t> kernel(const std::string& root) const;

  CLI::App* plan_;
  std::string catalogue_;
  std::string settings_;
  std::string release_;
  std::string product_;
  bool isDiff_ = false;
  bool json_ = false;
};
