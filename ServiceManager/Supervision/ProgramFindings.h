#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Values/Time.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/Supervision/ServiceProgram.h"
#include "ServiceManager/Supervision/SharedTable.h"
#include "Shared/ORBSigningValidator.h"

// The result of the last check of a service's program.
struct ProgramFinding {
  platform::Instant at{};
  ProgramState state = ProgramState::kUnknown;
  std::string fault = {};  // why it is not intact, or not known to be
  std::optional<std::string> identifier = {};
  std::optional<platform::CodeProtection> protection = {};  // of an intact program
};

// The findings about the programs that evaluations have needed, by label. The operator is answered
// from it, so that a disk that hangs delays no answer. Belongs to the main thread.
class ProgramFindings {
 public:
  using Table = std::map<std::string, ProgramFinding, std::less<>>;

  void note(const std::string& label, const std::string& path, const ProgramCheck& check,
            const ORBSigningValidator& validator, platform::Instant now);

  // For any thread. It does not change any more.
  std::shared_ptr<const Table> table() const { return table_.share(); }

 private:
  SharedTable<Table> table_;
};
