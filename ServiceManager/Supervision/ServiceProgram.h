#pragma once

#include <string>

#include "Platform/Files/FileReader.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "Shared/ORBSigningValidator.h"

// The state of a service's program.
struct ProgramCheck {
  ProgramState state = ProgramState::kMissing;
  ORBSigningValidator::Verdict verdict;  // if the program exists
};

// Looks for the program, and validates it if it exists. Blocks on the disk.
ProgramCheck checkProgram(const std::string& path, platform::FileReader& files,
                          const ORBSigningValidator& validator);

// The job with the file that was found valid, which alone the job host may execute for it. The job
// itself if the check tells of no file.
platform::Value jobOfVerifiedProgram(const platform::Value& job, const ProgramCheck& program);

// Whether the job host has refused to start a job because its program is another file than the one
// that was verified. It was replaced meanwhile, so it must be verified again.
bool hasProgramChanged(const platform::NSError& refusal);
