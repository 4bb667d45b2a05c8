// Rules for signers: anchors, times, keys, digests and usages. Each fault has its own reason.

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/cms.h>

#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/Certificates/CmsSignature.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

class SignerRulesTest : public testing::Test {
 protected:
  static CertificateRequest request() { return CodeSigningBed::signerRequest(); }
  static SigningIdentity issue(const CertificateRequest& request) {
    return CodeSigningBed::issue(request, CodeSigningBed::authority());
  }

  // The reason why this signer's program is refused, empty if it is accepted.
  std::string refusalOf(const SigningIdentity& signer,
                        OSStatus expectedStatus = errSecCSReqFailed) {
    const std::string path = bed_.makeProgram("bin/program", signer);
    const auto verdict = bed_.check(path);
    if (verdict) return {};
    EXPECT_EQ(verdict.error().status, expectedStatus) << verdict.error().reason;
    EXPECT_THAT(verdict.error().reason, HasSubstr(path));
    return verdict.error().reason;
  }

  CodeSigningBed bed_;
};

TEST_F(SignerRulesTest, AnIssuedSignerIsAccepted) {
  EXPECT_THAT(refusalOf(CodeSigningBed::signer()), IsEmpty());
}

TEST_F(SignerRulesTest, AChainOverAnIntermediateAuthorityIsAccepted) {
  const auto middle =
      CodeSigningBed::issue(CodeSigningBed::issuerRequest("Middle"), CodeSigningBed::authority());
  EXPECT_THAT(refusalOf(CodeSigningBed::issue(request(), middle)), IsEmpty());
}

TEST_F(SignerRulesTest, AnIntermediateAuthorityMayItselfBeTheAnchor) {
  const auto middle = CodeSigningBed::issue(CodeSigningBed::issuerRequest("Middle"),
                                            CodeSigningBed::foreignAuthority());
  const auto signer = CodeSigningBed::issue(request(), middle);
  EXPECT_THAT(refusalOf(signer), HasSubstr("leads to none of the anchors"));
  bed_.anchor("middle.pem", middle);
  EXPECT_THAT(refusalOf(signer), IsEmpty());
}

TEST_F(SignerRulesTest, TheWrongAnchorIsRefused) {
  EXPECT_THAT(refusalOf(CodeSigningBed::foreignSigner()),
              HasSubstr("its signer \"CN=Signer\" leads to none of the anchors"));
}

TEST_F(SignerRulesTest, AChainOfTooManyAuthoritiesIsRefused) {
  const auto chainOf = [&](int count) {
    SigningIdentity issuer =
        CodeSigningBed::issue(CodeSigningBed::issuerRequest("1"), CodeSigningBed::authority());
    for (int i = 2; i <= count; ++i) {
      issuer = CodeSigningBed::issue(CodeSigningBed::issuerRequest(std::to_string(i)), issuer);
    }
    return CodeSigningBed::issue(request(), issuer);
  };
  EXPECT_THAT(refusalOf(chainOf(kMaxIntermediateCertificates - 1)), IsEmpty());
  EXPECT_THAT(refusalOf(chainOf(kMaxIntermediateCertificates)), IsEmpty());
  EXPECT_THAT(refusalOf(chainOf(kMaxIntermediateCertificates + 1)), HasSubstr("chain too long"));
}

TEST_F(SignerRulesTest, TheWrongKeyUsageIsRefused) {
  CertificateRequest wrong = request();
  wrong.keyUsage = "critical,keyEncipherment";
  EXPECT_THAT(refusalOf(issue(wrong)), HasSubstr("its key usage does not say"));
}

TEST_F(SignerRulesTest, TheWrongExtendedKeyUsageIsRefused) {
  for (const char* usage :
       {"", "emailProtection", "serverAuth,clientAuth", "anyExtendedKeyUsage"}) {
    CertificateRequest wrong = request();
    wrong.extendedKeyUsage = usage;
    EXPECT_THAT(refusalOf(issue(wrong)), HasSubstr("must not sign code")) << usage;
  }
  CertificateRequest several = request();
  several.extendedKeyUsage = "emailProtection,codeSigning";
  EXPECT_THAT(refusalOf(issue(several)), IsEmpty());
}

TEST_F(SignerRulesTest, AnAuthorityThatSignsCodeItselfIsRefused) {
  CertificateRequest wrong = request();
  wrong.basicConstraints = "critical,CA:TRUE";
  EXPECT_THAT(refusalOf(issue(wrong)), HasSubstr("is a certificate authority"));
}

TEST_F(SignerRulesTest, AnAnchorMaySignCodeItself) {
  EXPECT_THAT(refusalOf(CodeSigningBed::foreignSigner()), HasSubstr("none of the anchors"));
  bed_.anchor("signer.pem", CodeSigningBed::foreignSigner());
  EXPECT_THAT(refusalOf(CodeSigningBed::foreignSigner()), IsEmpty());
}

TEST_F(SignerRulesTest, AnAnchorForAnotherUsageIsRefused) {
  CertificateRequest wrong = request();
  wrong.extendedKeyUsage = "emailProtection";
  const auto signer = issue(wrong);
  bed_.anchor("signer.pem", signer);
  EXPECT_THAT(refusalOf(signer), HasSubstr("must not sign code"));
}

TEST_F(SignerRulesTest, AnIssuerThatIsNoAuthorityIsRefused) {
  CertificateRequest noAuthority = request();
  noAuthority.commonName = "No authority";
  EXPECT_THAT(refusalOf(CodeSigningBed::issue(request(), issue(noAuthority))),
              HasSubstr("\"CN=No authority\""));
  CertificateRequest noCertificates = CodeSigningBed::issuerRequest("Lists only");
  noCertificates.keyUsage = "critical,cRLSign";
  EXPECT_THAT(refusalOf(CodeSigningBed::issue(request(), issue(noCertificates))),
              HasSubstr("\"CN=Lists only\""));
  CertificateRequest mail = CodeSigningBed::issuerRequest("Mail");
  mail.extendedKeyUsage = "emailProtection";
  EXPECT_THAT(refusalOf(CodeSigningBed::issue(request(), issue(mail))),
              HasSubstr("is an authority for other purposes"));
}

TEST_F(SignerRulesTest, AWeakKeyIsRefused) {
  const auto withRsa = [&](unsigned int bits) {
    return makeIdentity(request(), makeRsaKey(bits).value(), &CodeSigningBed::authority()).value();
  };
  EXPECT_THAT(refusalOf(withRsa(2047)), HasSubstr("has an RSA key of 2047 bits"));
  EXPECT_THAT(refusalOf(withRsa(2048)), IsEmpty());
}

TEST_F(SignerRulesTest, OnlyTheNamedCurvesAreAccepted) {
  const auto onCurve = [&](const char* curve) {
    return makeIdentity(request(), makeEcKey(curve).value(), &CodeSigningBed::authority()).value();
  };
  for (const char* curve : {"P-256", "P-384", "P-521"}) {
    EXPECT_THAT(refusalOf(onCurve(curve)), IsEmpty()) << curve;
  }
  for (const char* curve : {"P-224", "secp256k1", "brainpoolP256r1"}) {
    EXPECT_THAT(refusalOf(onCurve(curve)), HasSubstr("has a key on the curve")) << curve;
  }
}

TEST_F(SignerRulesTest, AnIssuersWeakKeyIsRefused) {
  const auto middle = makeIdentity(CodeSigningBed::issuerRequest("Weak"), makeRsaKey(1024).value(),
                                   &CodeSigningBed::authority());
  EXPECT_THAT(refusalOf(CodeSigningBed::issue(request(), *middle)),
              HasSubstr("\"CN=Weak\" has an RSA key of 1024 bits"));
}

TEST_F(SignerRulesTest, ACertificateSignedWithAWeakDigestIsRefused) {
  CertificateRequest weak = request();
  weak.digest = EVP_sha1();
  EXPECT_THAT(refusalOf(issue(weak)), HasSubstr("was signed with the digest SHA1"));
}

TEST_F(SignerRulesTest, CertificatesMustBeValidAtTheTimeOfSigning) {
  CertificateRequest shortLived = request();
  shortLived.notBefore = CodeSigningBed::kSignedAt;
  shortLived.notAfter = CodeSigningBed::kSignedAt + 1s;
  EXPECT_THAT(refusalOf(issue(shortLived)), IsEmpty());
  shortLived.notBefore = CodeSigningBed::kSignedAt + 1s;
  shortLived.notAfter = CodeSigningBed::kValidTo;
  EXPECT_THAT(refusalOf(issue(shortLived)),
              HasSubstr("was not yet valid on 2025-01-01 00:00:00 UTC"));
  shortLived.notBefore = CodeSigningBed::kValidFrom;
  shortLived.notAfter = CodeSigningBed::kSignedAt;
  EXPECT_THAT(refusalOf(issue(shortLived)), HasSubstr("had expired on 2025-01-01 00:00:00 UTC"));
}

TEST_F(SignerRulesTest, OurSignatureCoversChainTimeAndIdentifier) {
  const auto middle =
      CodeSigningBed::issue(CodeSigningBed::issuerRequest("Middle"), CodeSigningBed::authority());
  const auto signer = CodeSigningBed::issue(request(), middle);
  const auto der = makeCmsSignature(signer, CodeSigningBed::options("com.vantor.x"), Data(32, 7));
  const auto signature = CmsSignature::parse(*der, "x");
  ASSERT_TRUE(signature) << signature.error().reason;
  EXPECT_EQ(signature->attributes().identifier, "com.vantor.x");
  EXPECT_EQ(signature->attributes().signingTime, CodeSigningBed::kSignedAt);
  EXPECT_TRUE(signature->attributes().signingCertificates);
  EXPECT_EQ(sk_X509_num(signature->certificates()), 2);  // The anchor is left out.
  EXPECT_TRUE(signature->checkAttributes(signer.chain.front().get()));
  EXPECT_TRUE(signature->checkContent(signer.chain.front().get(), Data(32, 7), 0));
}

TEST_F(SignerRulesTest, OurSignatureWithoutACertificateIsRefused) {
  const auto middle =
      CodeSigningBed::issue(CodeSigningBed::issuerRequest("Middle"), CodeSigningBed::authority());
  const auto signer = CodeSigningBed::issue(request(), middle);
  const auto der = makeCmsSignature(signer, CodeSigningBed::options(), Data(32, 7));
  // The same signature with fewer certificates.
  const unsigned char* next = der->data();
  const CmsHandle whole(d2i_CMS_ContentInfo(nullptr, &next, static_cast<long>(der->size())));
  SigningIdentity alone;
  X509_up_ref(signer.chain.front().get());
  alone.chain.emplace_back(signer.chain.front().get());
  EVP_PKEY_up_ref(signer.key.get());
  alone.key.reset(signer.key.get());
  const CmsHandle without(
      CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_DETACHED | CMS_BINARY | CMS_PARTIAL));
  CMS_SignerInfo* const copy =
      CMS_add1_signer(without.get(), alone.chain.front().get(), alone.key.get(), EVP_sha256(),
                      CMS_DETACHED | CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP);
  CMS_SignerInfo* const original = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(whole.get()), 0);
  for (int i = 0; i < CMS_signed_get_attr_count(original); ++i) {
    CMS_signed_add1_attr(copy, CMS_signed_get_attr(original, i));
  }
  ASSERT_EQ(CMS_SignerInfo_sign(copy), 1);
  unsigned char* bytes = nullptr;
  const int size = i2d_CMS_ContentInfo(without.get(), &bytes);
  const OpenSslMemory<unsigned char> held(bytes);
  const auto signature = CmsSignature::parse({bytes, static_cast<std::size_t>(size)}, "x");
  ASSERT_TRUE(signature) << signature.error().reason;
  const auto checked = signature->checkAttributes(signer.chain.front().get());
  ASSERT_FALSE(checked);
  EXPECT_THAT(checked.error().reason, HasSubstr("lacks certificates that were signed along"));
}

}  // namespace
}  // namespace platform
