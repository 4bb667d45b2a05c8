#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// The state of a file on which a decision was based. It is checked before the decision is used
// again.
struct FileFact {
  enum class Covers {
    kPlace,     // the same folder, and the same users may write it
    kContents,  // also unchanged content
  };

  std::string path;
  Covers covers = Covers::kContents;
  struct stat status{};

  // Whether the file at the path still has the state. One system call.
  bool stillHolds() const;
};

using FileFacts = std::vector<FileFact>;

// Whether both are the same file in the same state.
bool isSameState(const struct stat& one, const struct stat& other);

// Whether a file was changed so shortly before `now` that another change might not alter the time
// of its last change, or after `now`.
bool changedRecently(const struct stat& status, WallTime now);

// A file must not have been changed for this long before its state is unique.
inline constexpr std::chrono::seconds kSettledAfter{2};

// The status of `path`; does not follow a symbolic link.
CodeSigningResult<struct stat> fileStatus(const std::string& path);

// The failure of a check during which a file changed. The next check gives the verdict.
std::unexpected<CodeSigningFailure> changedMeanwhile(std::string reason);

// The failure of a check of these files. If one of them has changed since, the failure is that of a
// check during which a file changed: parts of two states fit nothing that anybody signed.
CodeSigningFailure failureOfCheck(CodeSigningFailure failure, const FileFacts& facts,
                                  const std::string& path);

// The failure for a failed system call on `path`.
CodeSigningFailure failureOfSystemCall(const std::string& path, int errorNumber);

// The failure for a file that can't be opened or read.
CodeSigningFailure failureOfOpening(const std::string& path, const Error& error);

}  // namespace platform
