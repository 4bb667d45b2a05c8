#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/FileFact.h"

namespace platform {

// Trusts root and the owner of the platform root with files. A signature tells what a file
// contained when it was read; only its place ensures that it still contains it when it runs. It
// believes what the file system says about owners, so whoever may mount one below a trusted folder
// is trusted, too.
class TrustedPlace {
 public:
  explicit TrustedPlace(uid_t owner) : owner_(owner) {}

  // Trusts every place, for reports about code that is not going to run.
  static TrustedPlace anywhere() { return TrustedPlace(); }

  // Checks that nobody else can write or replace the file or folder at `path`. Neither it nor any
  // folder above it may be writable by others, except sticky folders above it, in which others
  // can't replace names. `path` must be absolute, without symbolic links, empty names, "." and
  // "..". Appends every part of the path that was examined to `facts`, `path` itself last and with
  // its contents. Fails with errSecCSBadObjectFormat if the path is ill-formed, else with
  // kErrnoStatusBase + EPERM, ELOOP or the errno of the system.
  CodeSigningResult<void> check(const std::string& path, FileFacts& facts) const;

  // The same for a single file in a folder that has been checked.
  CodeSigningResult<void> checkFile(const std::string& path, const struct stat& status) const;

 private:
  TrustedPlace() = default;

  std::optional<uid_t> owner_;  // none: every place is trusted
};

}  // namespace platform
