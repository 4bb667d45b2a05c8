#include "ServiceManager/Supervision/ServiceProgram.h"

#include <utility>

namespace {

ProgramState stateOf(platform::CodeVerdict verdict) {
  switch (verdict) {
    case platform::CodeVerdict::kIntact:
      return ProgramState::kSound;
    case platform::CodeVerdict::kUnknown:
      return ProgramState::kUnknown;
    case platform::CodeVerdict::kDamaged:
    case platform::CodeVerdict::kNotSigned:
      return ProgramState::kDamaged;
  }
  return ProgramState::kUnknown;
}

}  // namespace

ProgramCheck checkProgram(const std::string& path, platform::FileReader& files,
                          const ORBSigningValidator& validator) {
  if (!files.fileExistsAtPath(path)) return {};
  ORBSigningValidator::Verdict verdict = validator.validateProgram(path);
  const ProgramState state = stateOf(verdict.verdict);
  return {state, std::move(verdict)};
}
