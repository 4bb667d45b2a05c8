#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/CodeSigning/TrustedPlace.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Time.h"

namespace platform {

// The anchors as they were at one moment; immutable.
struct AnchorSet {
  std::uint64_t generation = 0;
  CertificateStore store;
  CertificateStack certificates;
  // Why there are fewer than one may expect, one text for each reason; empty where all is well.
  std::vector<std::string> remarks;
};

// The certificates that the platform trusts to sign code, or to say who may: every certificate in
// every file (PEM, one or several, or DER) of one folder. Folder and files count only where nobody
// but root and the platform root's owner can write them; what is not a certificate is passed over.
// Any thread may use it.
class AnchorStore {
 public:
  static constexpr std::size_t kMaxFiles = 64;
  static constexpr std::size_t kMaxFileBytes = 256 * 1024;
  static constexpr int kMaxCertificates = 256;

  AnchorStore(std::string folder, TrustedPlace place);

  // The anchors as they are now. They stay loaded, since loading costs as much as a check: the
  // folder and its files are only looked at.
  std::shared_ptr<const AnchorSet> current(WallTime now);

 private:
  std::shared_ptr<const AnchorSet> load(WallTime now);
  // False where it is only now that the file can't be read.
  bool loadFile(const std::string& path, AnchorSet& set);

  const std::string folder_;
  const TrustedPlace place_;

  std::mutex mutex_;
  // Shared with the checks that are under way.
  std::shared_ptr<const AnchorSet> set_;
  FileFacts facts_;       // that the set rests on
  bool settled_ = false;  // whether a later change would show in them
  std::uint64_t generation_ = 0;
};

}  // namespace platform
