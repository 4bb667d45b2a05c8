#pragma once

#include <string>

#include "Platform/Files/FileReader.h"
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
