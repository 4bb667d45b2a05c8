#pragma once

// A platform root with a throw-away authority, for tests of signed code. It is a header only,
// because it uses the signing code of Platform/Linux, which its users link.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Certificates/CertificateMaker.h"
#include "Platform/Linux/Certificates/IdentityFiles.h"
#include "Platform/Linux/CodeSigning/CodeSigner.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {

class CodeSigningBed {
 public:
  static constexpr std::chrono::sys_seconds kValidFrom =
      std::chrono::sys_days{std::chrono::January / 1 / 2020};
  static constexpr std::chrono::sys_seconds kSignedAt =
      std::chrono::sys_days{std::chrono::January / 1 / 2025};
  // Later than the times of files that a test makes, so that verdicts are cached.
  static constexpr std::chrono::sys_seconds kNow =
      std::chrono::sys_days{std::chrono::January / 1 / 2060};
  static constexpr std::chrono::sys_seconds kValidTo =
      std::chrono::sys_days{std::chrono::January / 1 / 2070};

  CodeSigningBed() {
    ::umask(022);  // Other users must not be able to write a test's files.
    anchor("authority.pem", authority());
    auto made = LinuxCodeSignatures::create(folder_.path(), [this] { return now_; });
    signatures_ = std::move(made.value());
  }

  // The authority whose certificate is the anchor, an untrusted one, and a signer of each.
  static const SigningIdentity& authority() {
    static const SigningIdentity identity = makeAuthority("Authority");
    return identity;
  }
  static const SigningIdentity& foreignAuthority() {
    static const SigningIdentity identity = makeAuthority("Foreign authority");
    return identity;
  }
  static const SigningIdentity& signer() {
    static const SigningIdentity identity = issue(signerRequest(), authority());
    return identity;
  }
  static const SigningIdentity& foreignSigner() {
    static const SigningIdentity identity = issue(signerRequest(), foreignAuthority());
    return identity;
  }

  static CertificateRequest signerRequest() {
    CertificateRequest request;
    request.commonName = "Signer";
    request.notBefore = kValidFrom;
    request.notAfter = kValidTo;
    return request;
  }
  static CertificateRequest issuerRequest(std::string name) {
    return authorityRequest(std::move(name), kValidFrom, kValidTo);
  }
  static SigningIdentity issue(const CertificateRequest& request, const SigningIdentity& issuer) {
    return makeIdentity(request, makeEcKey("P-256").value(), &issuer).value();
  }
  static SigningIdentity makeAuthority(std::string name) {
    return makeIdentity(issuerRequest(std::move(name)), makeEcKey("P-256").value(), nullptr)
        .value();
  }

  TemporaryFolder& folder() { return folder_; }
  LinuxCodeSignatures& signatures() { return *signatures_; }
  void setNow(WallTime now) { now_ = now; }
  WallTime now() const { return now_; }

  // Adds a certificate to the anchors.
  void anchor(std::string_view file, const SigningIdentity& identity) {
    folder_.write("etc/vantor/anchors/" + std::string(file),
                  pemOfCertificate(identity.chain.front().get()).value());
  }

  static SigningOptions options(std::optional<std::string> identifier = "com.vantor.sample") {
    return {std::move(identifier), kSignedAt};
  }

  // An executable file below the root; its content is not a real program.
  std::string makeFile(std::string_view below, std::string_view content =
                                                   "\x7f"
                                                   "ELF program") {
    const std::string path = folder_.write(below, content);
    EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
    return path;
  }

  std::string makeProgram(std::string_view below, const SigningIdentity& by = signer(),
                          const SigningOptions& with = options()) {
    const std::string path = makeFile(below);
    const auto done = signProgram(path, by, with);
    EXPECT_TRUE(done) << describe(done.error());
    return path;
  }

  // An unsealed bundle with a signed program, a resource and a symbolic link.
  std::string makeUnsealedBundle(std::string_view below) {
    const std::string bundle(below);
    makeProgram(bundle + "/Contents/Linux/program");
    folder_.write(bundle + "/Contents/Resources/text", "text");
    const std::string link = folder_.path(bundle + "/Contents/Resources/link");
    EXPECT_EQ(::symlink("text", link.c_str()), 0);
    return folder_.path(bundle);
  }

  std::string makeBundle(std::string_view below, const SigningIdentity& by = signer(),
                         const SigningOptions& with = options()) {
    std::string path = makeUnsealedBundle(below);
    const auto done = signBundle(path, by, with);
    EXPECT_TRUE(done) << describe(done.error());
    return path;
  }

  CodeSigningResult<void> check(const std::string& path) {
    auto code = signatures_->SecStaticCodeCreateWithPath(path);
    if (!code) return std::unexpected(code.error());
    return checkCodeThatRuns(**code);
  }

  // The same for code that is not going to run.
  CodeSigningResult<void> checkAnywhere(const std::string& path) {
    auto code = signatures_->SecStaticCodeCreateWithPath(path);
    if (!code) return std::unexpected(code.error());
    return (*code)->SecStaticCodeCheckValidityWithErrors(
        kSecCSCheckAllArchitectures, *SecRequirementCreateWithString("anchor apple generic"));
  }

  // The refusal of the code. If the code is accepted, it is empty and the test fails.
  CodeSigningFailure refusal(const std::string& path) {
    const auto verdict = check(path);
    EXPECT_FALSE(verdict) << path << " is accepted";
    return verdict ? CodeSigningFailure{errSecSuccess, {}} : verdict.error();
  }

 private:
  TemporaryFolder folder_;
  WallTime now_ = kNow;
  std::unique_ptr<LinuxCodeSignatures> signatures_;
};

}  // namespace platform
