#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/AnchorStore.h"
#include "Platform/Linux/CodeSigning/TrustedPlace.h"
#include "Platform/Linux/CodeSigning/VerdictCache.h"
#include "Platform/Values/Time.h"

namespace platform {

// Code signatures by OpenSSL's CMS. A program carries one at its end (SignatureTrailer.h) or beside
// it in NAME.p7s, a bundle one over the list of what it holds (BundleSeal.h). "anchor apple
// generic" means a chain to the certificates in etc/vantor/anchors/ of the platform root.
//
// A verdict is about the moment of the check; that it holds until the code runs is what the checks
// of its place are for: see TrustedPlace.
class LinuxCodeSignatures final : public CodeSignatures {
 public:
  // The civil time, as the run loop tells it.
  using Clock = std::function<WallTime()>;

  // For the platform at `root`, which is an absolute path without symbolic links.
  static Result<std::unique_ptr<LinuxCodeSignatures>> create(const std::string& root, Clock clock);

  CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
      const std::string& path) override;

  // The verdict on the code at `path`, remembered or new.
  CodeSigningResult<std::shared_ptr<const VerifiedCode>> check(const std::string& path,
                                                               SecStaticCode::Kind kind);

  // How many verdicts are remembered.
  std::size_t remembered() const { return verdicts_.size(); }

 private:
  LinuxCodeSignatures(const std::string& root, TrustedPlace place, Clock clock);

  const TrustedPlace place_;
  const Clock clock_;
  AnchorStore anchors_;
  VerdictCache verdicts_;
};

}  // namespace platform
