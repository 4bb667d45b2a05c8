#pragma once

#include <CLI/CLI.hpp>

#include "Platform/Values/Error.h"
#include "Tools/servicemanagerctl/DoctorProbes.h"

// "servicemanagerctl doctor": looks at all that the product needs, and says what to do.
class DoctorCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit DoctorCommand(CLI::App& app);
  DoctorCommand(const DoctorCommand&) = delete;
  DoctorCommand& operator=(const DoctorCommand&) = delete;

  bool parsed() const { return doctor_->parsed(); }

  // Runs the command and returns the exit status.
  int run(const DoctorEnvironment& environment) const;
  // The same if the platform layer can't be made, for this reason.
  int runWithout(const platform::Error& platformFault) const;

 private:
  int report(const DoctorFacts& facts) const;

  CLI::App* doctor_;
  bool json_ = false;
};
