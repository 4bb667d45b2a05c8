#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"

#include <utility>

#include <sys/stat.h>

#include "Platform/Linux/CodeSigning/BundleVerifier.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Platform/Linux/CodeSigning/SignedProgram.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {
namespace {

constexpr std::string_view kAnchorsFolder = "etc/vantor/anchors";

Dictionary informationOf(const SignatureStatement& statement, std::uint32_t flags) {
  Dictionary information;
  if (statement.identifier) information.set(kSecCodeInfoIdentifier, *statement.identifier);
  if ((flags & kSecCSSigningInformation) == 0) return information;
  information.set(kSecCodeInfoCertificates, statement.certificates);
  if (statement.signingTime) {
    const auto seconds = statement.signingTime->time_since_epoch().count();
    information.set(kSecCodeInfoTimestamp,
                    Date{static_cast<double>(seconds - kReferenceDateUnixSeconds)});
  }
  return information;
}

class LinuxStaticCode final : public SecStaticCode {
 public:
  LinuxStaticCode(LinuxCodeSignatures& signatures, std::string path, Kind kind)
      : signatures_(signatures), path_(std::move(path)), kind_(kind) {}

  Kind kind() const override { return kind_; }

  CodeSigningResult<void> SecStaticCodeCheckValidityWithErrors(
      std::uint32_t /*flags*/, const SecRequirement& /*requirement: there is only one*/) override {
    checked_ = nullptr;
    auto verdict = signatures_.check(path_, kind_);
    if (!verdict) return std::unexpected(verdict.error());
    checked_ = *std::move(verdict);
    return {};
  }

  CodeSigningResult<Dictionary> SecCodeCopySigningInformation(std::uint32_t flags) override {
    if (checked_) return informationOf(checked_->signature.statement, flags);
    const auto statement =
        kind_ == Kind::kBundle ? readBundleSignature(path_) : readProgramSignature(path_);
    if (!statement) return std::unexpected(statement.error());
    return informationOf(*statement, flags);
  }

 private:
  LinuxCodeSignatures& signatures_;
  const std::string path_;
  const Kind kind_;
  // The last verdict on this code, shared with the cache.
  std::shared_ptr<const VerifiedCode> checked_;
};

}  // namespace

LinuxCodeSignatures::LinuxCodeSignatures(const std::string& root, TrustedPlace place, Clock clock)
    : place_(place),
      clock_(std::move(clock)),
      anchors_(pathBelowRoot(root, kAnchorsFolder), place) {}

Result<std::unique_ptr<LinuxCodeSignatures>> LinuxCodeSignatures::create(const std::string& root,
                                                                         Clock clock) {
  struct stat status{};
  if (::stat(root.c_str(), &status) != 0) {
    return std::unexpected(systemError("the platform root " + root));
  }
  return std::unique_ptr<LinuxCodeSignatures>(
      new LinuxCodeSignatures(root, TrustedPlace(status.st_uid), std::move(clock)));
}

CodeSigningResult<std::unique_ptr<SecStaticCode>> LinuxCodeSignatures::SecStaticCodeCreateWithPath(
    const std::string& path) {
  const auto status = fileStatus(path);
  if (!status) return std::unexpected(status.error());
  const bool isFolder = S_ISDIR(status->st_mode);
  if (!isFolder) {
    if (auto usable = checkIsProgramFile(path, *status); !usable) {
      return std::unexpected(usable.error());
    }
  }
  const auto kind = isFolder ? SecStaticCode::Kind::kBundle : SecStaticCode::Kind::kProgram;
  return std::make_unique<LinuxStaticCode>(*this, path, kind);
}

CodeSigningResult<std::shared_ptr<const VerifiedCode>> LinuxCodeSignatures::check(
    const std::string& path, SecStaticCode::Kind kind) {
  const WallTime now = clock_();
  const std::shared_ptr<const AnchorSet> anchors = anchors_.current(now);
  if (auto known = verdicts_.find(path, anchors->generation, now)) return known;
  if (anchors->unread) return std::unexpected(*anchors->unread);
  const VerificationContext context{*anchors, place_,
                                    std::chrono::floor<std::chrono::seconds>(now)};
  auto code = kind == SecStaticCode::Kind::kBundle ? verifyBundle(path, context)
                                                   : verifyProgram(path, context);
  if (!code) return std::unexpected(code.error());
  auto verdict = std::make_shared<const VerifiedCode>(*std::move(code));
  verdicts_.remember(path, anchors->generation, now, verdict);
  return verdict;
}

}  // namespace platform
