#pragma once

#include <string>

#include <sys/types.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/FileFact.h"

namespace platform {

// Whom a platform trusts with its files: root, and the owner of the platform root. A signature says
// what a file held when it was read; that it still holds this when it runs, only its place can say.
class TrustedPlace {
 public:
  explicit TrustedPlace(uid_t owner) : owner_(owner) {}

  // That no one else can write or replace what lies at `path`: neither the file or folder itself
  // nor any folder above it, but for sticky folders above, in which names are safe from others.
  // `path` is absolute, without symbolic links, empty names, "." and ".."; what is not so is
  // refused. Adds to `facts` what was looked at, `path` itself last with its contents. Status of a
  // refusal: errSecCSBadObjectFormat for the path's form, else kErrnoStatusBase + EPERM, ELOOP or
  // what the system said.
  CodeSigningResult<void> check(const std::string& path, FileFacts& facts) const;

  // The same of a single file, whose folder has been checked.
  CodeSigningResult<void> checkFile(const std::string& path, const struct stat& status) const;

 private:
  uid_t owner_;
};

}  // namespace platform
