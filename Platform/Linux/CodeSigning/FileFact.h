#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Values/Time.h"

namespace platform {

// What a decision about a file rested on, to be looked at again before the decision is used again.
struct FileFact {
  enum class Covers {
    kPlace,     // which folder it is, and who may write it
    kContents,  // also that nothing in it has changed
  };

  std::string path;
  Covers covers = Covers::kContents;
  struct stat status{};

  // Whether what lies at the path now is what was seen. One system call.
  bool stillHolds() const;
};

using FileFacts = std::vector<FileFact>;

// Whether both are the same file in the same state.
bool isSameState(const struct stat& one, const struct stat& other);

// Whether a file was changed so shortly before `now` that another change could leave no trace in
// its times, or by its times after `now`.
bool changedRecently(const struct stat& status, WallTime now);

// How long ago a file must have been changed for its state to be told from the next.
inline constexpr std::chrono::seconds kSettledAfter{2};

// Looks at `path` without following a symbolic link.
CodeSigningResult<struct stat> lookAt(const std::string& path);

// The refusal that a failed system call on `path` means.
CodeSigningFailure failureOfSystemCall(const std::string& path, int errorNumber);

}  // namespace platform
