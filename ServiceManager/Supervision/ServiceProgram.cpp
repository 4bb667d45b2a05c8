#include "ServiceManager/Supervision/ServiceProgram.h"

#include <cstdint>
#include <utility>

#include "Platform/Jobs/Jobs.h"

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

platform::Value jobOfVerifiedProgram(const platform::Value& job, const ProgramCheck& program) {
  if (!program.verdict.file || !job.dictionary()) return job;
  platform::Dictionary entries = *job.dictionary();
  entries.set(platform::kJobVerifiedProgramKey,
              platform::textOfVerifiedFile(*program.verdict.file));
  return entries;
}

bool hasProgramChanged(const platform::NSError& refusal) {
  return refusal.domain == platform::kCFErrorDomainLaunchd &&
         refusal.code == static_cast<std::int64_t>(platform::LaunchdError::kProgramChanged);
}
