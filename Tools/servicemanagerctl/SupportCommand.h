#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Values/Error.h"
#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/DoctorProbes.h"
#include "Tools/servicemanagerctl/SupportBundle.h"

// "servicemanagerctl support-bundle FILE". It needs neither a service manager nor a job host, and
// tells what is missing for want of them.
class SupportCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit SupportCommand(CLI::App& app);
  SupportCommand(const SupportCommand&) = delete;
  SupportCommand& operator=(const SupportCommand&) = delete;

  bool parsed() const { return bundle_->parsed(); }

  struct Environment {
    const DaemonClient::Environment& daemon;
    DoctorEnvironment doctor;
    platform::EmbeddedJobs& jobs;
    nlohmann::ordered_json platform;  // the facts of the platform layer
  };

  // Writes the bundle and returns the exit status.
  int run(const Environment& environment) const;

  // The bundle of a platform whose configuration can't be used.
  int runWithout(const platform::Error& platformFault, platform::WallTime now) const;

 private:
  int write(std::vector<SupportPart> parts, platform::WallTime now) const;

  CLI::App* bundle_;
  bool json_ = false;
  std::string file_;
};
