#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include <sys/stat.h>

#include "Platform/Linux/CodeSigning/BundleVerifier.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Platform/Linux/CodeSigning/SignedProgram.h"
#include "Platform/Linux/Files/FileProtection.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {
namespace {

constexpr std::string_view kAnchorsFolder = "etc/vantor/anchors";
constexpr std::string_view kRevokedFolder = "etc/vantor/revoked";

struct FreeDeleter {
  void operator()(char* text) const { std::free(text); }
};

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

// The path without symbolic links and empty names, "." and "..".
CodeSigningResult<std::string> realPathOf(const std::string& path) {
  if (path.contains('\0')) return std::unexpected(failureOfSystemCall(path, EINVAL));
  const std::unique_ptr<char, FreeDeleter> real(::realpath(path.c_str(), nullptr));
  if (!real) return std::unexpected(failureOfSystemCall(path, errno));
  return std::string(real.get());
}

class LinuxStaticCode final : public SecStaticCode {
 public:
  LinuxStaticCode(LinuxCodeSignatures& signatures, std::string path, std::string realPath,
                  Kind kind)
      : signatures_(signatures),
        path_(std::move(path)),
        realPath_(std::move(realPath)),
        kind_(kind) {}

  Kind kind() const override { return kind_; }

  CodeSigningResult<void> SecStaticCodeCheckValidityWithErrors(
      std::uint32_t flags, const SecRequirement& /*requirement: there is only one*/) override {
    checked_ = nullptr;
    auto verdict = (flags & kSecCSCheckTrustedPlace) != 0
                       ? signatures_.check(path_, kind_)
                       : signatures_.checkAnywhere(realPath_, kind_);
    if (!verdict) return std::unexpected(verdict.error());
    checked_ = *std::move(verdict);
    return {};
  }

  CodeSigningResult<Dictionary> SecCodeCopySigningInformation(std::uint32_t flags) override {
    if (checked_) return informationOf(checked_->signature.statement, flags);
    const auto statement =
        kind_ == Kind::kBundle ? readBundleSignature(realPath_) : readProgramSignature(realPath_);
    if (!statement) return std::unexpected(statement.error());
    return informationOf(*statement, flags);
  }

  std::optional<VerifiedFile> verifiedFile() const override {
    return checked_ ? checked_->program : std::nullopt;
  }

 private:
  LinuxCodeSignatures& signatures_;
  const std::string path_;  // as the caller named it
  const std::string realPath_;
  const Kind kind_;
  // The last verdict on this code, shared with the cache.
  std::shared_ptr<const VerifiedCode> checked_;
};

}  // namespace

LinuxCodeSignatures::LinuxCodeSignatures(const std::string& root, TrustedPlace place, Clock clock)
    : place_(place),
      clock_(std::move(clock)),
      anchors_(pathBelowRoot(root, kAnchorsFolder), pathBelowRoot(root, kRevokedFolder), place) {}

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
  const auto real = realPathOf(path);
  if (!real) return std::unexpected(real.error());
  const auto status = fileStatus(*real);
  if (!status) return std::unexpected(status.error());
  const bool isFolder = S_ISDIR(status->st_mode);
  if (!isFolder) {
    if (auto usable = checkIsProgramFile(*real, *status); !usable) {
      return std::unexpected(usable.error());
    }
  }
  const auto kind = isFolder ? SecStaticCode::Kind::kBundle : SecStaticCode::Kind::kProgram;
  return std::make_unique<LinuxStaticCode>(*this, path, *real, kind);
}

std::optional<CodeProtection> LinuxCodeSignatures::protectionOf(const std::string& path) {
  const auto file = openRegularFile(path, FinalLink::kFollow);
  if (!file) return std::nullopt;
  if (!verityDigestOf(file->get()).empty()) return CodeProtection::kVerity;
  return isImmutable(file->get()) ? CodeProtection::kImmutable : CodeProtection::kRecheck;
}

LinuxCodeSignatures::Verdict LinuxCodeSignatures::check(const std::string& path,
                                                        SecStaticCode::Kind kind) {
  const WallTime now = clock_();
  const std::shared_ptr<const AnchorSet> anchors = anchors_.current(now);
  if (auto known = verdicts_.find(path, anchors->generation, now)) return known;
  auto verdict = verify(path, kind, *anchors, place_, now);
  if (verdict) verdicts_.remember(path, anchors->generation, now, *verdict);
  return verdict;
}

LinuxCodeSignatures::Verdict LinuxCodeSignatures::checkAnywhere(const std::string& path,
                                                                SecStaticCode::Kind kind) {
  if (checkPlace(path)) {
    auto verdict = check(path, kind);
    const bool isElsewhere = !verdict && verdict.error().status == kErrnoStatusBase + EPERM;
    if (!isElsewhere) return verdict;
  }
  const WallTime now = clock_();
  return verify(path, kind, *anchors_.current(now), TrustedPlace::anywhere(), now);
}

CodeSigningResult<void> LinuxCodeSignatures::checkPlace(const std::string& path) const {
  FileFacts facts;
  return place_.check(path, facts);
}

LinuxCodeSignatures::Verdict LinuxCodeSignatures::verify(const std::string& path,
                                                         SecStaticCode::Kind kind,
                                                         const AnchorSet& anchors,
                                                         const TrustedPlace& place, WallTime now) {
  if (anchors.unread) return std::unexpected(*anchors.unread);
  const VerificationContext context{anchors, place, std::chrono::floor<std::chrono::seconds>(now)};
  auto code = kind == SecStaticCode::Kind::kBundle ? verifyBundle(path, context)
                                                   : verifyProgram(path, context);
  if (!code) return std::unexpected(code.error());
  return std::make_shared<const VerifiedCode>(*std::move(code));
}

}  // namespace platform
