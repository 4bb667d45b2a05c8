#include "ServiceManager/Supervision/ProgramFindings.h"

#include <utility>

void ProgramFindings::note(const std::string& label, const std::string& path,
                           const ProgramCheck& check, const ORBSigningValidator& validator,
                           platform::Instant now) {
  ProgramFinding finding{.at = now, .state = check.state};
  if (check.state != ProgramState::kMissing) {
    finding.fault = check.verdict.isIntact() ? std::string() : check.verdict.reason;
    finding.identifier = check.verdict.identifier;
  }
  if (check.state == ProgramState::kSound) finding.protection = validator.protectionOf(path);
  table_.change().insert_or_assign(label, std::move(finding));
}
