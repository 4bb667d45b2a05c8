#pragma once

#include <optional>
#include <string>

#include "Platform/CodeSigning/CodeSignature.h"

// Answers whether code is what its makers signed, for the integrity checks. Every answer is logged
// through logger 1: a refusal as an error with its reason, anything else for debugging.
//
// It may read all of the code and blocks on the disk alone; an unchanged file that was found intact
// shortly before costs next to nothing. Any thread may ask.
class ORBSigningValidator {
 public:
  struct Verdict {
    bool isIntact = false;
    platform::OSStatus status = platform::errSecSuccess;
    std::string reason;  // why it is not intact; empty if it is
    // Of intact code; nothing where its signature names none.
    std::optional<std::string> identifier;
  };

  // `signatures` outlives this.
  explicit ORBSigningValidator(platform::CodeSignatures& signatures) : signatures_(signatures) {}

  // Whether the bundle in the folder at `path` has all its sealed resources, unchanged, and none
  // besides.
  Verdict validateBundle(const std::string& path) const;

  // Whether the program file at `path` is unchanged, and the bundle that it belongs to, if any, is
  // intact.
  Verdict validateProgram(const std::string& path) const;

 private:
  Verdict validate(const std::string& path, platform::SecStaticCode::Kind wanted) const;
  platform::CodeSigningResult<platform::Dictionary> check(
      const std::string& path, platform::SecStaticCode::Kind wanted) const;

  platform::CodeSignatures& signatures_;
};
