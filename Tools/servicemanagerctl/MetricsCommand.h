#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "Platform/RunLoops/RunLoop.h"
#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/MetricsReport.h"

// "servicemanagerctl metrics": for Prometheus. It always answers: a service manager that does not
// is a metric, too.
class MetricsCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit MetricsCommand(CLI::App& app);
  MetricsCommand(const MetricsCommand&) = delete;
  MetricsCommand& operator=(const MetricsCommand&) = delete;

  bool parsed() const { return metrics_->parsed() && file_.empty(); }
  bool isScraped() const { return metrics_->parsed() && !file_.empty(); }

  // Prints the metrics and returns the exit status.
  int run(const DaemonClient::Environment& environment) const;

  // Answers one HTTP request on standard input with the metrics in a file. This needs no service
  // manager and no rights but to read the file.
  int answerScraper(platform::RunLoop& loop) const;

 private:
  Answer<MetricsReport::Manager> collect(const DaemonClient::Environment& environment) const;

  CLI::App* metrics_;
  std::string file_;
};
