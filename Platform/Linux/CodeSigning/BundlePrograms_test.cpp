// Bundles whose seal names the programs by their signatures.

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"

namespace platform {
namespace {

using testing::HasSubstr;

class BundleProgramsTest : public testing::Test {
 protected:
  BundleProgramsTest() {
    const auto done = signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options(),
                                 SealPrograms::kBySignature);
    EXPECT_TRUE(done) << describe(done.error());
  }

  // Another program, as a newer package brings it.
  void replaceProgram(const SigningIdentity& by, const std::string& identifier) {
    bed_.makeFile(kProgram,
                  "\x7f"
                  "ELF newer program");
    const auto done = signProgram(program_, by, CodeSigningBed::options(identifier));
    EXPECT_TRUE(done) << describe(done.error());
  }

  void expectRefused(OSStatus status, const std::string& reason) {
    for (const std::string& path : {bundle_, program_}) {
      const CodeSigningFailure failure = bed_.refusal(path);
      EXPECT_EQ(failure.status, status) << path << ": " << failure.reason;
      EXPECT_THAT(failure.reason, HasSubstr(reason));
    }
  }

  static constexpr char kProgram[] = "Sample.bundle/Contents/Linux/program";

  CodeSigningBed bed_;
  const std::string bundle_ = bed_.makeUnsealedBundle("Sample.bundle");
  const std::string program_ = bed_.folder().path(kProgram);
};

TEST_F(BundleProgramsTest, ASignedReplacementIsAccepted) {
  EXPECT_TRUE(bed_.check(bundle_));
  replaceProgram(CodeSigningBed::signer(), "com.vantor.sample");
  EXPECT_TRUE(bed_.check(bundle_));
  EXPECT_TRUE(bed_.check(program_));
}

TEST_F(BundleProgramsTest, AnUnsignedReplacementIsRefused) {
  EXPECT_TRUE(bed_.check(bundle_));  // Its verdict is cached.
  bed_.makeFile(kProgram);
  expectRefused(errSecCSUnsigned, "program");
}

TEST_F(BundleProgramsTest, AChangedProgramIsRefused) {
  std::string content = contentOfFile(program_);
  content[5] ^= 1;
  bed_.folder().write(kProgram, content);
  EXPECT_FALSE(bed_.check(bundle_));
  EXPECT_FALSE(bed_.check(program_));
}

TEST_F(BundleProgramsTest, AReplacementOfAForeignSignerIsRefused) {
  replaceProgram(CodeSigningBed::foreignSigner(), "com.vantor.sample");
  EXPECT_FALSE(bed_.check(bundle_));
  EXPECT_FALSE(bed_.check(program_));
}

TEST_F(BundleProgramsTest, AnotherSignedProgramIsRefused) {
  replaceProgram(CodeSigningBed::signer(), "com.vantor.other");
  expectRefused(errSecCSBadResource, "was sealed with a program \"com.vantor.sample\"");
}

TEST_F(BundleProgramsTest, TheOtherFilesAreStillSealedByContent) {
  bed_.folder().write("Sample.bundle/Contents/Resources/text", "Text");
  expectRefused(errSecCSBadResource, "Resources/text: was changed after the bundle was sealed");
}

TEST_F(BundleProgramsTest, AMissingProgramIsRefused) {
  std::filesystem::remove(program_);
  EXPECT_EQ(bed_.refusal(bundle_).status, errSecCSBadResource);
}

TEST_F(BundleProgramsTest, AProgramWithoutASignatureCannotBeSealedByIt) {
  bed_.makeFile(kProgram);
  EXPECT_FALSE(signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options(),
                          SealPrograms::kBySignature));
}

TEST_F(BundleProgramsTest, ProgramsOfTheSameIdentifierCannotBeSealedByIt) {
  const std::string other = bed_.makeProgram("Sample.bundle/Contents/Linux/other");
  const auto sealAgain = [&] {
    return signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options(),
                      SealPrograms::kBySignature);
  };
  const auto refused = sealAgain();
  ASSERT_FALSE(refused);
  EXPECT_THAT(describe(refused.error()),
              HasSubstr("has the identifier \"com.vantor.sample\" as Contents/Linux/other has"));
  ASSERT_TRUE(
      signProgram(other, CodeSigningBed::signer(), CodeSigningBed::options("com.vantor.other")));
  EXPECT_TRUE(sealAgain());
  EXPECT_TRUE(bed_.check(bundle_));
}

TEST_F(BundleProgramsTest, AProgramWithASignatureBesideItCannotBeSealedByIt) {
  bed_.makeFile(kProgram);
  ASSERT_TRUE(signDetached(program_, CodeSigningBed::signer(), CodeSigningBed::options()));
  const auto refused = signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options(),
                                  SealPrograms::kBySignature);
  ASSERT_FALSE(refused);
  EXPECT_THAT(describe(refused.error()), HasSubstr("program.p7s by its content"));
  EXPECT_TRUE(signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options()));
}

}  // namespace
}  // namespace platform
