#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/ServicesReport.h"

// "servicemanagerctl list | start LABEL... | stop LABEL... | installer begin LABEL... |
// installer end".
class ServiceCommands {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit ServiceCommands(CLI::App& app);
  ServiceCommands(const ServiceCommands&) = delete;
  ServiceCommands& operator=(const ServiceCommands&) = delete;

  bool parsed() const;

  // Runs the command and returns the exit status.
  int run(const DaemonClient::Environment& environment) const;

 private:
  Answer<int> list(const DaemonClient::Environment& environment) const;
  Answer<std::vector<ServiceState>> readAll(const DaemonClient::Environment& environment) const;
  Answer<int> start(DaemonClient& userInterface,
                    const DaemonClient::Environment& environment) const;
  Answer<platform::Value> awaitServices(DaemonClient& userInterface,
                                        const DaemonClient::Environment& environment,
                                        platform::Duration timeOut) const;
  Answer<int> stop(DaemonClient& userInterface, const DaemonClient::Environment& environment) const;
  Answer<int> beginInstaller(const DaemonClient::Environment& environment) const;
  Answer<int> endInstaller(const DaemonClient::Environment& environment) const;

  // Prints the state of the named services; fails unless all are as wanted.
  int conclude(const std::vector<ServiceState>& services, bool shouldRun) const;

  CLI::App* list_;
  CLI::App* start_;
  CLI::App* stop_;
  CLI::App* installer_;
  CLI::App* begin_;
  CLI::App* end_;
  bool json_ = false;
  bool wide_ = false;
  std::vector<std::string> labels_;
};
