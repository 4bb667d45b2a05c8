#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl run --catalogue FILE LABEL": a service on its own, in a job host of its own.
// It needs neither a daemon nor root.
class RunCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit RunCommand(CLI::App& app);
  RunCommand(const RunCommand&) = delete;
  RunCommand& operator=(const RunCommand&) = delete;

  bool parsed() const { return run_->parsed(); }

  // Runs the service and returns the exit status. `root` is the platform root whose job host is
  // used; if it is empty, the one beside this program. Call it before there are other threads.
  int run(const std::string& root) const;

 private:
  Answer<platform::Dictionary> job(const platform::Value& catalogue) const;
  Answer<void> tellPlan(const platform::Value& catalogue) const;

  CLI::App* run_;
  std::string catalogue_;
  std::string settings_;
  std::string label_;
};
