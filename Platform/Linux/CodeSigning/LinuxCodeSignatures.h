#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/AnchorStore.h"
#include "Platform/Linux/CodeSigning/TrustedPlace.h"
#include "Platform/Linux/CodeSigning/VerdictCache.h"
#include "Platform/Values/Time.h"

namespace platform {

// Code signatures in OpenSSL's CMS. A program's signature is at its end (SignatureTrailer.h) or
// beside it in NAME.p7s; a bundle's signature covers the list of its content (BundleSeal.h).
// "anchor apple generic" means a chain to the certificates in etc/vantor/anchors/ of the platform
// root.
//
// A verdict holds at the moment of the check. The checks of the code's place (TrustedPlace) ensure
// that it still holds when the code runs. Only verdicts on code in a trusted place are cached.
class LinuxCodeSignatures final : public CodeSignatures {
 public:
  // The civil time, as the run loop returns it.
  using Clock = std::function<WallTime()>;

  // For the platform at `root`, an absolute path without symbolic links.
  static Result<std::unique_ptr<LinuxCodeSignatures>> create(const std::string& root, Clock clock);

  CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
      const std::string& path) override;

  std::optional<CodeProtection> protectionOf(const std::string& path) override;

  using Verdict = CodeSigningResult<std::shared_ptr<const VerifiedCode>>;

  // The verdict on the code at `path`, which is its real one, from the cache or new.
  Verdict check(const std::string& path, SecStaticCode::Kind kind);

  // The verdict on code that is not going to run: its place does not matter.
  Verdict checkAnywhere(const std::string& path, SecStaticCode::Kind kind);

  // Whether nobody but root and the owner of the platform root can write or replace the file or
  // folder at `path`, which is its real one.
  CodeSigningResult<void> checkPlace(const std::string& path) const;

  // The anchors that count now.
  std::shared_ptr<const AnchorSet> anchors() { return anchors_.current(clock_()); }

  // The number of cached verdicts.
  std::size_t remembered() const { return verdicts_.size(); }

 private:
  LinuxCodeSignatures(const std::string& root, TrustedPlace place, Clock clock);
  static Verdict verify(const std::string& path, SecStaticCode::Kind kind, const AnchorSet& anchors,
                        const TrustedPlace& place, WallTime now);

  const TrustedPlace place_;
  const Clock clock_;
  AnchorStore anchors_;
  VerdictCache verdicts_;
};

}  // namespace platform
