#include "Tools/servicemanagerctl/DoctorCommand.h"

#include <unistd.h>

#include "Tools/servicemanagerctl/DoctorFindings.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

DoctorCommand::DoctorCommand(CLI::App& app)
    : doctor_(app.add_subcommand("doctor",
                                 "Find the faults of this installation, and say what to do")) {
  doctor_->add_flag("--json", json_, "For programs");
}

int DoctorCommand::run(const DoctorEnvironment& environment) const {
  return report(probe(environment));
}

int DoctorCommand::runWithout(const platform::Error& platformFault) const {
  return report({.platformFault = platform::describe(platformFault)});
}

int DoctorCommand::report(const DoctorFacts& facts) const {
  const auto findings = doctorFindings(facts);
  print(json_ ? dumped(asJson(findings))
              : withRootInHints(asText(findings, readerOf(STDOUT_FILENO))));
  return exitStatusOf(findings);
}
