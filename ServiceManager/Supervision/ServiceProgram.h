#pragma once

#include <string>

#include "Platform/Files/FileReader.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "Shared/ORBSigningValidator.h"

// How a service's program is.
struct ProgramCheck {
  ProgramState state = ProgramState::kMissing;
  ORBSigningValidator::Verdict verdict;  // on a program that is there
};

// Looks for the program, and validates it if it is there. Blocks on the disk.
ProgramCheck checkProgram(const std::string& path, platform::FileReader& files,
                          const ORBSigningValidator& validator);
