#pragma once

#include <string>
#include <string_view>

#include "Platform/CodeSigning/CodeSignature.h"

// The meaning of the check of a file's signature, for "execinfo".

struct FileVerdict {
  enum class Kind { kIntact, kNotSigned, kUnknown, kMissing, kDamaged };  // the worst one last
  Kind kind = Kind::kIntact;
  std::string reason = {};  // of any other than kIntact

  bool operator==(const FileVerdict&) const = default;
};

FileVerdict fileVerdict(const platform::CodeSigningResult<void>& check);

// For programs: "intact", "unsigned", "unknown", "missing", "damaged".
std::string_view verdictWord(FileVerdict::Kind kind);

// For people, with the reason.
std::string inWords(const FileVerdict& verdict);

// 0 if it is intact, else a status of ExitStatus.h for each kind.
int exitStatusOf(FileVerdict::Kind kind);
