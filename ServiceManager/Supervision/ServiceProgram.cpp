#include "ServiceManager/Supervision/ServiceProgram.h"

#include <utility>

ProgramCheck checkProgram(const std::string& path, platform::FileReader& files,
                          const ORBSigningValidator& validator) {
  if (!files.fileExistsAtPath(path)) return {};
  ORBSigningValidator::Verdict verdict = validator.validateProgram(path);
  const ProgramState state = verdict.isIntact() ? ProgramState::kSound : ProgramState::kDamaged;
  return {state, std::move(verdict)};
}
