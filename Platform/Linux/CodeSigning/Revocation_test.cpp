// Signing times, and certificates that were revoked. OpenSSL's own program gives a second opinion.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include "Platform/Digests/Digest.h"
#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/Certificates/Revocations.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

class RevocationTest : public testing::Test {
 protected:
  // The reason why the script is refused, empty if it is accepted.
  std::string refusal() {
    const auto verdict = bed_.check(script_);
    if (verdict) return {};
    EXPECT_EQ(verdict.error().status, errSecCSReqFailed) << verdict.error().reason;
    return verdict.error().reason;
  }

  void sign(const SigningIdentity& by, std::chrono::sys_seconds time) {
    SigningOptions options = CodeSigningBed::options();
    options.time = time;
    ASSERT_TRUE(signDetached(script_, by, options));
  }

  // Whether "openssl cms" accepts the script at this time, with a list of revoked certificates.
  bool opensslAccepts(std::chrono::sys_seconds time, const std::string& list = {}) {
    std::string trusted = contentOfFile(anchorPath("authority.pem"));
    if (!list.empty()) trusted += contentOfFile(list);
    trusted = bed_.folder().write("trusted.pem", trusted);
    const std::string command =
        "/usr/bin/openssl cms -verify -binary -inform DER -purpose any -in '" + script_ +
        ".p7s' -content '" + script_ + "' -CAfile '" + trusted + "' -attime " +
        std::to_string(time.time_since_epoch().count()) + (list.empty() ? "" : " -crl_check");
    return std::system((command + " -out /dev/null 2>/dev/null").c_str()) == 0;
  }

  std::string anchorPath(const std::string& name) {
    return bed_.folder().path("etc/vantor/anchors/" + name);
  }

  static std::string digestOf(const SigningIdentity& identity) {
    return hexadecimalText(CC_SHA256(derOfCertificate(identity.chain.front().get())));
  }
  void revoke(const std::string& text) { bed_.folder().write("etc/vantor/revoked/list", text); }

  // A list of revoked certificates by `issuer`, in PEM.
  static std::string listBy(const SigningIdentity& issuer,
                            const std::vector<const SigningIdentity*>& revoked) {
    const RevocationList list(X509_CRL_new());
    X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(issuer.chain.front().get()));
    const auto time = [](std::chrono::sys_seconds at) {
      return std::unique_ptr<ASN1_TIME, OpenSslDeleter<ASN1_TIME_free>>(
          ASN1_TIME_set(nullptr, static_cast<std::time_t>(at.time_since_epoch().count())));
    };
    X509_CRL_set1_lastUpdate(list.get(), time(CodeSigningBed::kSignedAt).get());
    X509_CRL_set1_nextUpdate(list.get(), time(CodeSigningBed::kSignedAt + 24h).get());
    for (const SigningIdentity* one : revoked) {
      X509_REVOKED* const entry = X509_REVOKED_new();
      X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(one->chain.front().get()));
      X509_REVOKED_set_revocationDate(entry, time(CodeSigningBed::kSignedAt).get());
      X509_CRL_add0_revoked(list.get(), entry);
    }
    X509_CRL_sort(list.get());
    EXPECT_GT(X509_CRL_sign(list.get(), issuer.key.get(), EVP_sha256()), 0);
    const BioHandle bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509_CRL(bio.get(), list.get());
    char* text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<std::size_t>(size));
  }
  std::string addList(const std::string& text) {
    return bed_.folder().write("etc/vantor/anchors/list.pem", text);
  }

  CodeSigningBed bed_;
  const std::string script_ = bed_.makeFile("bin/script", "#!/bin/sh\n");
};

TEST_F(RevocationTest, ASignatureOfATimeToComeIsRefused) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  for (const auto early : {0s, 300s}) {
    bed_.setNow(CodeSigningBed::kSignedAt - early);
    EXPECT_THAT(refusal(), IsEmpty()) << early.count();
  }
  bed_.setNow(CodeSigningBed::kSignedAt - 301s);
  EXPECT_THAT(refusal(),
              HasSubstr("its signature is of 2025-01-01 00:00:00 UTC, which is yet to come"));
}

// Its time lies in the certificate's validity, but that has not begun.
TEST_F(RevocationTest, ACertificateThatIsNotYetValidSignsNothing) {
  CertificateRequest request = CodeSigningBed::signerRequest();
  request.notBefore = CodeSigningBed::kNow + 24h;
  const auto future = CodeSigningBed::issue(request, CodeSigningBed::authority());
  sign(future, CodeSigningBed::kNow + 48h);
  EXPECT_THAT(refusal(), HasSubstr("which is yet to come"));
  EXPECT_FALSE(opensslAccepts(CodeSigningBed::kNow));
  bed_.setNow(CodeSigningBed::kNow + 48h);
  EXPECT_THAT(refusal(), IsEmpty());
  EXPECT_TRUE(opensslAccepts(CodeSigningBed::kNow + 48h));
}

// OpenSSL's program knows no signing time, so it gets that time as the present.
TEST_F(RevocationTest, ASigningTimeOutsideTheValidityIsRefused) {
  const auto begin = CodeSigningBed::kSignedAt;
  CertificateRequest request = CodeSigningBed::signerRequest();
  request.notBefore = begin;
  request.notAfter = begin + 24h;
  const auto ofOneDay = CodeSigningBed::issue(request, CodeSigningBed::authority());
  for (const auto& [time, isValid] : {std::pair{begin - 1s, false},
                                      {begin, true},
                                      {begin + 24h - 1s, true},
                                      {begin + 24h, false}}) {
    SCOPED_TRACE((time - begin).count());
    sign(ofOneDay, time);
    EXPECT_EQ(refusal().empty(), isValid);
    EXPECT_EQ(opensslAccepts(time), isValid);
  }
}

TEST_F(RevocationTest, AClockThatIsSetBackEndsACachedVerdict) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kNow);
  EXPECT_THAT(refusal(), IsEmpty());
  EXPECT_EQ(bed_.signatures().remembered(), 1u);
  bed_.setNow(CodeSigningBed::kNow - 1h);
  EXPECT_THAT(refusal(), HasSubstr("which is yet to come"));
}

TEST_F(RevocationTest, ARevokedCertificateSignsNothingAnyMore) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  EXPECT_THAT(refusal(), IsEmpty());
  revoke("# leaked\n\n" + digestOf(CodeSigningBed::signer()) + "  signer.der\n");
  EXPECT_THAT(refusal(), HasSubstr("the certificate \"CN=Signer\" was revoked: its SHA-256"));
  std::filesystem::remove(bed_.folder().path("etc/vantor/revoked/list"));
  EXPECT_THAT(refusal(), IsEmpty());
}

// The command of docs/signing.md.
TEST_F(RevocationTest, AFingerprintThatOpensslWritesRevokes) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  const std::string certificate = bed_.folder().write(
      "signer.pem", pemOfCertificate(CodeSigningBed::signer().chain.front().get()).value());
  revoke("");
  const std::string command = "/usr/bin/openssl x509 -in '" + certificate +
                              "' -noout -fingerprint -sha256 >> '" +
                              bed_.folder().path("etc/vantor/revoked/list") + "'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_THAT(refusal(), HasSubstr("the certificate \"CN=Signer\" was revoked: its SHA-256"));
}

TEST_F(RevocationTest, ARevokedAuthorityEndsItsSigners) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  revoke(digestOf(CodeSigningBed::authority()));
  EXPECT_THAT(refusal(), HasSubstr("\"CN=Authority\" was revoked"));
}

TEST_F(RevocationTest, OnlyTheRevokedCertificateIsRefused) {
  const auto another =
      CodeSigningBed::issue(CodeSigningBed::signerRequest(), CodeSigningBed::authority());
  revoke(digestOf(another));
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  EXPECT_THAT(refusal(), IsEmpty());
  sign(another, CodeSigningBed::kSignedAt);
  EXPECT_THAT(refusal(), HasSubstr("was revoked"));
}

TEST_F(RevocationTest, ARevocationThatIsNotUnderstoodLeavesEveryVerdictUnknown) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  const auto expectUnknown = [&](const std::string& why) {
    const CodeSigningFailure failure = bed_.refusal(script_);
    EXPECT_EQ(verdictOf(failure), CodeVerdict::kUnknown) << failure.status;
    EXPECT_THAT(failure.reason, HasSubstr(why));
  };
  revoke("# a note\n12:34\n");
  expectUnknown("revoked/list: line 2 is no SHA-256 of a certificate");
  revoke("");
  ASSERT_EQ(::chmod(bed_.folder().path("etc/vantor/revoked/list").c_str(), 0666), 0);
  expectUnknown("can be written by others");
  std::filesystem::remove_all(bed_.folder().path("etc/vantor/revoked"));
  EXPECT_THAT(refusal(), IsEmpty());
}

TEST_F(RevocationTest, AListOfTheIssuerIsHonoured) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  const auto time = CodeSigningBed::kSignedAt + 1h;  // The list is valid then.
  addList(listBy(CodeSigningBed::authority(), {&CodeSigningBed::foreignSigner()}));
  EXPECT_THAT(refusal(), IsEmpty());
  EXPECT_TRUE(opensslAccepts(time, anchorPath("list.pem")));
  addList(listBy(CodeSigningBed::authority(), {&CodeSigningBed::signer()}));
  EXPECT_THAT(refusal(), HasSubstr("the certificate \"CN=Signer\" was revoked by its issuer"));
  EXPECT_FALSE(opensslAccepts(time, anchorPath("list.pem")));
  EXPECT_TRUE(opensslAccepts(time));
}

TEST_F(RevocationTest, AListInDerIsHonoured) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  const std::string list = bed_.folder().write(
      "list.pem", listBy(CodeSigningBed::authority(), {&CodeSigningBed::signer()}));
  const std::string command =
      "/usr/bin/openssl crl -in '" + list + "' -outform DER -out '" + anchorPath("list.der") + "'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_THAT(refusal(), HasSubstr("the certificate \"CN=Signer\" was revoked by its issuer"));
}

TEST_F(RevocationTest, AListByAnotherIssuerOfTheSameNameDoesNotCount) {
  sign(CodeSigningBed::signer(), CodeSigningBed::kSignedAt);
  const auto impostor = CodeSigningBed::makeAuthority("Authority");
  addList(listBy(impostor, {&CodeSigningBed::signer()}));
  EXPECT_THAT(refusal(), IsEmpty());
  EXPECT_FALSE(opensslAccepts(CodeSigningBed::kSignedAt + 1h, anchorPath("list.pem")));
}

TEST(RevokedTextTest, ALineHoldsOneDigest) {
  const std::string digits(64, 'a');
  std::string colons;
  for (int i = 0; i < 32; ++i) colons += i == 0 ? "AA" : ":AA";
  for (const std::string& text :
       {digits, digits + "\n", "\n# note\n" + digits + "  file\r\n", colons,
        "sha256 Fingerprint=" + colons + "\n", digits + "\n" + digits}) {
    Revocations revocations;
    EXPECT_TRUE(addRevoked(text, revocations)) << text;
    Sha256 expected;
    expected.fill(0xaa);
    EXPECT_EQ(revocations.certificates, std::set<Sha256>{expected}) << text;
  }
  for (const std::string& text : {digits + "a", digits.substr(1), "g" + digits.substr(1),
                                  " " + digits, std::string("revoked"), digits + "\nx"}) {
    Revocations revocations;
    EXPECT_FALSE(addRevoked(text, revocations)) << text;
    EXPECT_TRUE(revocations.certificates.empty()) << text;
  }
}

}  // namespace
}  // namespace platform
