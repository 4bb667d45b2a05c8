#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/SettingsReport.h"

// "servicemanagerctl settings list DOMAIN | get DOMAIN KEY | set DOMAIN KEY VALUE |
// unset DOMAIN KEY".
class SettingsCommands {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit SettingsCommands(CLI::App& app);
  SettingsCommands(const SettingsCommands&) = delete;
  SettingsCommands& operator=(const SettingsCommands&) = delete;

  bool parsed() const { return settings_->parsed(); }

  // Runs the command and returns the exit status. The environment's table of protocols holds the
  // settings protocol.
  int run(const DaemonClient::Environment& environment) const;

 private:
  Answer<int> list(DaemonClient& server) const;
  Answer<int> get(DaemonClient& server) const;
  Answer<int> set(DaemonClient& server) const;
  Answer<int> unset(DaemonClient& server) const;

  // Reads the server's present value.
  Answer<SettingState> read(DaemonClient& server) const;
  void report(const SettingState& setting) const;

  CLI::App* settings_;
  CLI::App* list_;
  CLI::App* get_;
  CLI::App* set_;
  CLI::App* unset_;
  bool json_ = false;
  std::string domain_;
  std::string key_;
  std::string value_;
  std::string type_;
};
