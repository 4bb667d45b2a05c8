// Signatures by other programs over "content": ill-formed ones are refused, each with its own
// reason.

#include <chrono>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <openssl/objects.h>

#include "Platform/Linux/Certificates/CmsAttributes.h"
#include "Platform/Linux/Certificates/CmsSignature.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

class ForeignSignatureTest : public testing::Test {
 protected:
  static constexpr unsigned int kFlags = CMS_DETACHED | CMS_BINARY;

  CmsHandle sign(unsigned int flags, const EVP_MD* digest, std::string content = "content") {
    const SigningIdentity& by = CodeSigningBed::signer();
    CmsHandle cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
    EXPECT_TRUE(CMS_add1_signer(cms.get(), by.chain.front().get(), by.key.get(), digest, flags));
    finish(cms.get(), flags, content);
    return cms;
  }

  static void finish(CMS_ContentInfo* cms, unsigned int flags, const std::string& content) {
    const BioHandle data(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
    EXPECT_EQ(CMS_final(cms, data.get(), nullptr, flags), 1) << takeOpenSslError();
  }

  // Checks the signature as a file beside one that holds `content`.
  std::string refusalOfSignature(CMS_ContentInfo* cms, OSStatus status,
                                 std::string content = "content") {
    unsigned char* der = nullptr;
    const int size = i2d_CMS_ContentInfo(cms, &der);
    const OpenSslMemory<unsigned char> held(der);
    const std::string path = bed_.makeFile("bin/script", content);
    bed_.folder().write("bin/script.p7s",
                        std::string(reinterpret_cast<char*>(der), static_cast<std::size_t>(size)));
    const auto verdict = bed_.check(path);
    if (verdict) return {};
    EXPECT_EQ(verdict.error().status, status) << verdict.error().reason;
    return verdict.error().reason;
  }

  CodeSigningBed bed_;
};

TEST_F(ForeignSignatureTest, WithAndWithoutSignedAttributesIsAccepted) {
  // OpenSSL writes the real time, which is in the certificates' period.
  EXPECT_THAT(refusalOfSignature(sign(kFlags, EVP_sha256()).get(), 0), IsEmpty());
  EXPECT_THAT(refusalOfSignature(sign(kFlags | CMS_NOATTR, EVP_sha512()).get(), 0), IsEmpty());
}

TEST_F(ForeignSignatureTest, WithoutASigningTimeCertificatesMustBeValidNow) {
  const CmsHandle cms = sign(kFlags | CMS_NOATTR, EVP_sha256());
  bed_.setNow(CodeSigningBed::kValidTo - 1s);
  EXPECT_THAT(refusalOfSignature(cms.get(), 0), IsEmpty());
  bed_.setNow(CodeSigningBed::kValidTo);
  EXPECT_THAT(refusalOfSignature(cms.get(), errSecCSReqFailed), HasSubstr("had expired"));
  bed_.setNow(CodeSigningBed::kValidFrom - 1s);
  EXPECT_THAT(refusalOfSignature(cms.get(), errSecCSReqFailed), HasSubstr("was not yet valid"));
}

TEST_F(ForeignSignatureTest, AChangedContentIsRefusedWithAndWithoutAttributes) {
  EXPECT_THAT(refusalOfSignature(sign(kFlags, EVP_sha256()).get(), errSecCSSignatureFailed, "x"),
              HasSubstr("is not what was signed"));
  EXPECT_THAT(refusalOfSignature(sign(kFlags | CMS_NOATTR, EVP_sha256()).get(),
                                 errSecCSSignatureFailed, "x"),
              HasSubstr("the code or the signature was changed"));
}

TEST_F(ForeignSignatureTest, AWeakDigestIsRefused) {
  for (const EVP_MD* weak : {EVP_sha1(), EVP_sha224()}) {
    EXPECT_THAT(refusalOfSignature(sign(kFlags, weak).get(), errSecCSReqFailed),
                HasSubstr("uses the digest"));
  }
}

TEST_F(ForeignSignatureTest, TwoSignersAreRefused) {
  const CmsHandle cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags | CMS_PARTIAL));
  for (const SigningIdentity* by : {&CodeSigningBed::signer(), &CodeSigningBed::foreignSigner()}) {
    CMS_add1_signer(cms.get(), by->chain.front().get(), by->key.get(), EVP_sha256(), kFlags);
  }
  finish(cms.get(), kFlags, "content");
  EXPECT_THAT(refusalOfSignature(cms.get(), errSecCSBadObjectFormat), HasSubstr("has 2 signers"));
}

TEST_F(ForeignSignatureTest, NoSignerIsRefused) {
  const CmsHandle cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags | CMS_PARTIAL));
  EXPECT_THAT(refusalOfSignature(cms.get(), errSecCSBadObjectFormat), HasSubstr("has 0 signers"));
}

TEST_F(ForeignSignatureTest, ContentInsideTheSignatureIsRefused) {
  EXPECT_THAT(refusalOfSignature(sign(CMS_BINARY, EVP_sha256()).get(), errSecCSBadObjectFormat),
              HasSubstr("brings content of its own"));
}

TEST_F(ForeignSignatureTest, AnUnknownSignerWithoutCertificateIsRefused) {
  EXPECT_THAT(refusalOfSignature(sign(kFlags | CMS_NOCERTS, EVP_sha256()).get(), errSecCSReqFailed),
              HasSubstr("neither in it nor among the anchors"));
}

TEST_F(ForeignSignatureTest, ASignatureOverAnothersAttributesIsRefused) {
  // The signed attributes are used as content, and their signature as a plain one. They begin with
  // the tag of a set.
  const std::string attributes = "1 could be attributes";
  EXPECT_THAT(refusalOfSignature(sign(kFlags | CMS_NOATTR, EVP_sha256(), attributes).get(),
                                 errSecCSBadObjectFormat, attributes),
              HasSubstr("another signature's attributes"));
  EXPECT_THAT(refusalOfSignature(sign(kFlags, EVP_sha256(), attributes).get(), 0, attributes),
              IsEmpty());
}

TEST_F(ForeignSignatureTest, TooManyCertificatesAreRefused) {
  for (const int count :
       {kMaxSignatureCertificates - 1, kMaxSignatureCertificates, kMaxSignatureCertificates + 1}) {
    const CmsHandle cms = sign(kFlags, EVP_sha256());
    for (int i = 1; i < count; ++i) {
      CertificateRequest extra = CodeSigningBed::signerRequest();
      extra.commonName = std::to_string(i);
      CMS_add1_cert(cms.get(),
                    CodeSigningBed::issue(extra, CodeSigningBed::authority()).chain.front().get());
    }
    const bool over = count > kMaxSignatureCertificates;
    EXPECT_THAT(refusalOfSignature(cms.get(), errSecCSBadObjectFormat),
                over ? HasSubstr("more than 16 certificates") : HasSubstr(""));
    EXPECT_EQ(bed_.check(bed_.folder().path("bin/script")).has_value(), !over);
  }
}

// A signature of ours with an attribute that the test adds before signing.
class AttributeTest : public ForeignSignatureTest {
 protected:
  template <typename Add>
  std::string refusalWith(Add add, OSStatus status = errSecCSBadObjectFormat) {
    const SigningIdentity& by = CodeSigningBed::signer();
    const CmsHandle cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags | CMS_PARTIAL));
    CMS_SignerInfo* const signer = CMS_add1_signer(cms.get(), by.chain.front().get(), by.key.get(),
                                                   EVP_sha256(), kFlags | CMS_PARTIAL);
    add(signer);
    finish(cms.get(), kFlags, "content");
    return refusalOfSignature(cms.get(), status);
  }

  static void addIdentifier(CMS_SignerInfo* signer, std::string_view text,
                            int type = V_ASN1_UTF8STRING) {
    CMS_signed_add1_attr_by_OBJ(signer, identifierAttributeObject().get(), type, text.data(),
                                static_cast<int>(text.size()));
  }
};

TEST_F(AttributeTest, AnIdentifierOfEverySizeAllowedIsAccepted) {
  for (const std::size_t size : {std::size_t{1}, kMaxIdentifierBytes - 1, kMaxIdentifierBytes}) {
    EXPECT_THAT(refusalWith([&](auto* signer) { addIdentifier(signer, std::string(size, 'x')); }),
                IsEmpty())
        << size;
  }
}

TEST_F(AttributeTest, AnIllFormedIdentifierIsRefused) {
  const std::string large(kMaxIdentifierBytes + 1, 'x');
  for (const std::string_view text :
       {std::string_view(""), std::string_view("a\nb"), std::string_view("\xff"),
        std::string_view("a\0b", 3), std::string_view("\xe2\x80\xa8"), std::string_view(large)}) {
    EXPECT_THAT(refusalWith([&](auto* signer) { addIdentifier(signer, text); }),
                HasSubstr("ill-formed identifier"))
        << testing::PrintToString(text);
  }
  EXPECT_THAT(refusalWith([](auto* signer) { addIdentifier(signer, "x", V_ASN1_OCTET_STRING); }),
              HasSubstr("ill-formed identifier"));
}

TEST_F(AttributeTest, TwoIdentifiersAreRefused) {
  EXPECT_THAT(refusalWith([](auto* signer) {
                addIdentifier(signer, "one");
                addIdentifier(signer, "two");
              }),
              HasSubstr("more or less than one identifier"));
}

TEST_F(AttributeTest, AnIllFormedSigningTimeIsRefused) {
  EXPECT_THAT(refusalWith([](auto* signer) {
                CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_signingTime, V_ASN1_UTCTIME,
                                            "991332000000Z", 13);
              }),
              HasSubstr("ill-formed signing time"));
}

TEST_F(AttributeTest, AnIllFormedListOfCertificatesIsRefused) {
  EXPECT_THAT(refusalWith([](auto* signer) {
                CMS_signed_add1_attr_by_NID(signer, NID_id_smime_aa_signingCertificateV2,
                                            V_ASN1_SEQUENCE, "\x30\x02\x05\x00", 4);
              }),
              HasSubstr("ill-formed list of signing certificates"));
}

}  // namespace
}  // namespace platform
