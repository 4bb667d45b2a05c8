#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/JobsReport.h"

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
  std::string logAsText(const DaemonClient::Environment& environment, const JobState& job) const;
  nlohmann::ordered_json logAsJson(const DaemonClient::Environment& environment,
                                   const JobState& job) const;

  CLI::App* show_;
  std::string label_;
  bool json_ = false;
  std::optional<std::size_t> lines_;
};
