#pragma once

#include <optional>
#include <string>

#include "Platform/CodeSigning/CodeSignature.h"

// Verifies code for the integrity checks. Every verdict is logged through logger 1: a rejection as
// an error with its reason, a check that could not be made as a warning, the others for debugging.
//
// A call may read all of the code and blocks only for the disk; an unchanged file that was found
// intact shortly before costs next to nothing. Any thread may call it.
class ORBSigningValidator {
 public:
  struct Verdict {
    platform::CodeVerdict verdict = platform::CodeVerdict::kUnknown;
    platform::OSStatus status = platform::errSecSuccess;
    std::string reason;  // why it is not intact, or not known to be; empty if it is
    // The identifier of intact code; nothing if its signature has none.
    std::optional<std::string> identifier;
    // An intact program's file, by which another process can tell whether it has the same one.
    std::optional<platform::VerifiedFile> file = {};

    bool isIntact() const { return verdict == platform::CodeVerdict::kIntact; }
    // The check could not be made; try again.
    bool isUnknown() const { return verdict == platform::CodeVerdict::kUnknown; }
  };

  // `signatures` outlives this.
  explicit ORBSigningValidator(platform::CodeSignatures& signatures) : signatures_(signatures) {}

  // Whether the bundle in the folder at `path` has all its sealed resources, unchanged, and no
  // others.
  Verdict validateBundle(const std::string& path) const;

  // Whether the program file at `path` is unchanged, and its bundle, if it belongs to one, is
  // intact.
  Verdict validateProgram(const std::string& path) const;

  // The protection of the program file at `path`. Nothing if it can't be opened.
  std::optional<platform::CodeProtection> protectionOf(const std::string& path) const {
    return signatures_.protectionOf(path);
  }

 private:
  Verdict validate(const std::string& path, platform::SecStaticCode::Kind wanted) const;
  platform::CodeSigningResult<Verdict> check(const std::string& path,
                                             platform::SecStaticCode::Kind wanted) const;

  platform::CodeSignatures& signatures_;
};
