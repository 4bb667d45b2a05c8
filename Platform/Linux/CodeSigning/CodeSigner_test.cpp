// The size limit of signatures.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/Certificates/CmsSigner.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/CodeSigning/SignatureTrailer.h"

namespace platform {
namespace {

// An identity whose signatures have the size that the test wants. It uses RSA, because the size of
// elliptic-curve signatures varies by a few bytes.
class SignatureSizeTest : public testing::Test {
 protected:
  static constexpr std::size_t kIdentifierBytes = 150;
  static constexpr std::size_t kUsageBytes = 5;  // of one usage in the certificate

  // Puts a certificate with `usages` usages after the signer's own.
  static void fillWith(SigningIdentity& identity, std::size_t usages) {
    CertificateRequest request = CodeSigningBed::signerRequest();
    for (std::size_t i = 0; i < usages; ++i) request.extendedKeyUsage += ",1.2.3.4";
    const auto filler = makeIdentity(request, makeEcKey("P-256").value(), nullptr).value();
    identity.chain.resize(1);
    X509_up_ref(filler.chain.front().get());
    identity.chain.emplace_back(filler.chain.front().get());
  }
  static SigningOptions optionsWith(std::size_t identifierBytes) {
    return CodeSigningBed::options(std::string(identifierBytes, 'i'));
  }
  static std::size_t sizeWith(const SigningIdentity& identity, std::size_t identifierBytes) {
    const Data digest(32);
    return makeCmsSignature(identity, optionsWith(identifierBytes), digest).value().size();
  }

  SignatureSizeTest() {
    identity_ = makeIdentity(CodeSigningBed::signerRequest(), makeRsaKey(2048).value(),
                             &CodeSigningBed::authority())
                    .value();
    constexpr std::size_t kUsages = 12'000;
    fillWith(identity_, kUsages);
    const std::size_t missing = kMaxSignatureBytes - sizeWith(identity_, kIdentifierBytes);
    fillWith(identity_, kUsages + missing / kUsageBytes);
  }

  SigningOptions optionsForBytes(std::size_t bytes) const {
    const std::size_t identifierBytes =
        kIdentifierBytes + bytes - sizeWith(identity_, kIdentifierBytes);
    EXPECT_EQ(sizeWith(identity_, identifierBytes), bytes);
    return optionsWith(identifierBytes);
  }

  CodeSigningBed bed_;
  SigningIdentity identity_;
};

TEST_F(SignatureSizeTest, TheSizeOfASealsSignatureIsLimited) {
  const std::string bundle = bed_.makeUnsealedBundle("Sample.bundle");
  const std::string signature = bundle + "/Contents/_CodeSignature/CodeSignature";
  for (const std::size_t bytes : {kMaxSignatureBytes - 1, kMaxSignatureBytes}) {
    const auto done = signBundle(bundle, identity_, optionsForBytes(bytes));
    ASSERT_TRUE(done) << describe(done.error());
    EXPECT_EQ(std::filesystem::file_size(signature), bytes);
  }
  const std::string list = bundle + "/Contents/_CodeSignature/CodeResources";
  const auto before = std::pair(contentOfFile(signature), contentOfFile(list));
  bed_.folder().write("Sample.bundle/Contents/Resources/text", "Text");  // The list must change.
  const auto done = signBundle(bundle, identity_, optionsForBytes(kMaxSignatureBytes + 1));
  ASSERT_FALSE(done);
  EXPECT_EQ(done.error().code, ErrorCode::kExhausted);
  EXPECT_THAT(describe(done.error()), testing::HasSubstr(bundle));
  EXPECT_EQ(std::pair(contentOfFile(signature), contentOfFile(list)), before);
}

TEST_F(SignatureSizeTest, TheSizeOfAProgramsSignatureIsLimited) {
  const std::string program = bed_.makeFile("bin/program");
  const std::size_t payload = std::filesystem::file_size(program);
  for (const std::size_t bytes : {kMaxSignatureBytes - 1, kMaxSignatureBytes}) {
    const auto done = signProgram(program, identity_, optionsForBytes(bytes));
    ASSERT_TRUE(done) << describe(done.error());
    EXPECT_EQ(std::filesystem::file_size(program), payload + bytes + kTrailerBytes);
  }
  const std::string before = contentOfFile(program);
  const auto done = signProgram(program, identity_, optionsForBytes(kMaxSignatureBytes + 1));
  ASSERT_FALSE(done);
  EXPECT_EQ(done.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(contentOfFile(program), before);
}

}  // namespace
}  // namespace platform
