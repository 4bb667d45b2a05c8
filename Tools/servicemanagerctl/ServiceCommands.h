#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/ServicesReport.h"

// "servicemanagerctl start LABEL... | stop LABEL... | restart LABEL... | reload-settings |
// installer begin LABEL... | installer end".
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
  Answer<int> start(DaemonClient& userInterface,
                    const DaemonClient::Environment& environment) const;
  Answer<int> stop(DaemonClient& userInterface, const DaemonClient::Environment& environment) const;
  Answer<int> restart(DaemonClient& userInterface,
                      const DaemonClient::Environment& environment) const;
  Answer<int> reloadSettings(const DaemonClient::Environment& environment) const;
  Answer<int> evaluate(const DaemonClient::Environment& environment,
                       const std::string& sentence) const;
  // Sends the requests, and waits for their effect if the user wants that.
  Answer<void> request(std::initializer_list<std::string_view> selectors,
                       DaemonClient& userInterface, const DaemonClient::Environment& environment,
                       platform::Duration usualTime) const;
  Answer<void> awaitServices(DaemonClient& userInterface,
                             const DaemonClient::Environment& environment,
                             platform::Duration usualTime) const;
  Answer<int> beginInstaller(const DaemonClient::Environment& environment) const;
  Answer<int> endInstaller(const DaemonClient::Environment& environment) const;

  // Prints the state of the named services; fails unless all are as wanted.
  int conclude(const std::vector<ServiceState>& services, bool shouldRun) const;
  // The same after a start or a stop, with remarks on each service that does not stay so.
  int concludeWithRemarks(const std::vector<ServiceState>& services, bool shouldRun,
                          const DaemonClient::Environment& environment) const;
  int concludeWithoutWait(std::string_view what) const;

  CLI::App* start_;
  CLI::App* stop_;
  CLI::App* restart_;
  CLI::App* reloadSettings_;
  CLI::App* installer_;
  CLI::App* begin_;
  CLI::App* end_;
  bool json_ = false;
  bool wait_ = true;
  bool log_ = false;
  std::optional<std::int64_t> timeOut_;  // in seconds
  std::vector<std::string> labels_;
};
