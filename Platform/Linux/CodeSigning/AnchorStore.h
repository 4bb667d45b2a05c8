#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Certificates/Revocations.h"
#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/CodeSigning/TrustedPlace.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Time.h"

namespace platform {

// The anchors at one moment; immutable.
struct AnchorSet {
  std::uint64_t generation = 0;
  CertificateStore store;
  CertificateStack certificates;
  Revocations revocations;
  // Reasons why anchors are missing, one text each; empty if there are none.
  std::vector<std::string> remarks;
  // Why it is not known which anchors there are, or which certificates were revoked. Then no
  // verdict can be given.
  std::optional<CodeSigningFailure> unread;
};

// The certificates that the platform trusts to sign code or to issue certificates for signers:
// every certificate in every file (PEM, one or several, or DER) of one folder. A file there may
// also hold lists of revoked certificates (CRL). The files of a second folder, which need not
// exist, hold the SHA-256 of revoked certificates (see addRevoked()); a file there that can't be
// understood makes every verdict unknown. Folders and files count only if nobody but root and the
// platform root's owner can write them. Files without a certificate are skipped; a file that can't
// be read for now is not. Any thread may use it.
class AnchorStore {
 public:
  static constexpr std::size_t kMaxFiles = 64;
  static constexpr std::size_t kMaxFileBytes = 256 * 1024;
  static constexpr int kMaxCertificates = 256;
  static constexpr std::size_t kMaxLists = 256;

  AnchorStore(std::string folder, std::string revokedFolder, TrustedPlace place);

  // The current anchors. They stay loaded, because loading costs as much as a check; a call only
  // checks whether the folder or its files have changed.
  std::shared_ptr<const AnchorSet> current(WallTime now);

 private:
  std::shared_ptr<const AnchorSet> load(WallTime now);
  void loadFile(const std::string& path, AnchorSet& set);
  void loadRevoked(AnchorSet& set);
  CodeSigningResult<void> loadRevokedFile(const std::string& path, AnchorSet& set);
  CodeSigningResult<std::string> readFile(const std::string& path);

  const std::string folder_;
  const std::string revokedFolder_;
  const TrustedPlace place_;

  std::mutex mutex_;
  // Shared with running checks.
  std::shared_ptr<const AnchorSet> set_;
  FileFacts facts_;       // the folder and files that were loaded
  bool settled_ = false;  // whether a later change would alter them
  std::uint64_t generation_ = 0;
};

}  // namespace platform
