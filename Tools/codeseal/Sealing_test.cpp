#include "Tools/codeseal/Sealing.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Linux/CodeSigning/BundleVerifier.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Tools/codeseal/Authority.h"
#include "Tools/codeseal/SignatureReport.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;

class SealingTest : public testing::Test {
 protected:
  static mode_t modeOf(const std::string& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777u;
  }

  // An authority that the tool made, trusted by the bed.
  SigningIdentity makeKeys() {
    EXPECT_TRUE(makeAuthority({keys_, "Test", CodeSigningBed::kSignedAt, std::chrono::days(1)}));
    EXPECT_TRUE(installAnchor(keys_, bed_.folder().path()));
    return readIdentity(keys_ + "/signer.key", keys_ + "/signer.pem").value();
  }

  SigningOptions options() { return CodeSigningBed::options(std::nullopt); }

  CodeSigningBed bed_;
  const std::string keys_ = bed_.folder().path("keys");
};

TEST_F(SealingTest, KeysAreReadableByTheirOwnerAlone) {
  makeKeys();
  EXPECT_EQ(modeOf(keys_), 0700u);
  EXPECT_EQ(modeOf(keys_ + "/authority.key"), 0600u);
  EXPECT_EQ(modeOf(keys_ + "/signer.key"), 0600u);
  EXPECT_EQ(modeOf(keys_ + "/signer.pem"), 0644u);
}

TEST_F(SealingTest, KeysThatExistAreNotReplaced) {
  makeKeys();
  const auto again = makeAuthority({keys_, "Test", CodeSigningBed::kSignedAt});
  ASSERT_FALSE(again);
  EXPECT_THAT(describe(again.error()), HasSubstr("authority.key"));
}

TEST_F(SealingTest, AKeyThatDoesNotFitTheCertificateIsRefused) {
  makeKeys();
  EXPECT_FALSE(readIdentity(keys_ + "/authority.key", keys_ + "/signer.pem"));
  EXPECT_FALSE(readIdentity(keys_ + "/signer.pem", keys_ + "/signer.pem"));
}

TEST_F(SealingTest, AnAnchorIsTrustedWhateverTheUmask) {
  makeAuthority({keys_, "Test", CodeSigningBed::kSignedAt});
  std::filesystem::remove_all(bed_.folder().path("etc"));
  const mode_t before = ::umask(0);
  const auto anchor = installAnchor(keys_, bed_.folder().path());
  ::umask(before);
  ASSERT_TRUE(anchor);
  EXPECT_EQ(modeOf(*anchor), 0644u);
  EXPECT_EQ(modeOf(bed_.folder().path("etc/vantor/anchors")), 0755u);
}

TEST_F(SealingTest, AProgramIsSignedAtItsEndAndAScriptBesideIt) {
  const auto identity = makeKeys();
  const std::string program = bed_.makeFile("bin/program");
  const std::string script = bed_.makeFile("bin/script.sh", "#!/bin/sh\n");
  EXPECT_THAT(*sealCode(program, identity, options(), false), ElementsAre(program));
  EXPECT_THAT(*sealCode(script, identity, options(), false), ElementsAre(script));
  EXPECT_FALSE(std::filesystem::exists(program + ".p7s"));
  EXPECT_TRUE(std::filesystem::exists(script + ".p7s"));
  EXPECT_TRUE(bed_.check(program));
  EXPECT_TRUE(bed_.check(script));
  EXPECT_EQ(readProgramSignature(script)->identifier, "script.sh");
}

TEST_F(SealingTest, AProgramMayBeSignedBesideItToo) {
  const auto identity = makeKeys();
  const std::string program = bed_.makeFile("bin/program");
  ASSERT_TRUE(sealCode(program, identity, options(), true));
  EXPECT_TRUE(std::filesystem::exists(program + ".p7s"));
  EXPECT_TRUE(bed_.check(program));
}

TEST_F(SealingTest, ABundleIsSealedAfterItsPrograms) {
  const auto identity = makeKeys();
  const std::string program = bed_.makeFile("X.bundle/Contents/Linux/program");
  const std::string script = bed_.makeFile("X.bundle/Contents/Linux/script", "#!/bin/sh\n");
  const std::string bundle = bed_.folder().path("X.bundle");
  // Twice, as after a rebuild.
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(*sealCode(bundle, identity, options(), false),
                ElementsAre(program, script, bundle));
    for (const std::string& path : {program, script, bundle}) {
      const auto verdict = bed_.check(path);
      EXPECT_TRUE(verdict) << verdict.error().reason;
    }
  }
  EXPECT_EQ(readBundleSignature(bundle)->identifier, "X");
  EXPECT_EQ(readProgramSignature(program)->identifier, "program");
}

TEST_F(SealingTest, TheReportShowsTheSignature) {
  const std::string program = bed_.makeProgram("bin/program");
  const SignatureReport report = makeReport(program, readProgramSignature(program));
  const std::string text = asText(report, "valid");
  EXPECT_THAT(text, HasSubstr(program + ": valid\n"));
  EXPECT_THAT(text, HasSubstr("Identifier   com.vantor.sample\n"));
  EXPECT_THAT(text, HasSubstr("Signed       2025-01-01T00:00:00Z\n"));
  EXPECT_THAT(text, HasSubstr("CN=Signer, 2020-01-01T00:00:00Z to 2070-01-01T00:00:00Z"));
  const auto json = asJson(report);
  EXPECT_EQ(json["status"], 0);
  EXPECT_EQ(json["identifier"], "com.vantor.sample");
  EXPECT_EQ(json["certificates"][0]["issuer"], "CN=Authority");
}

TEST_F(SealingTest, TheReportOfARejectionIsItsReasonAndStatus) {
  const SignatureReport report =
      makeReport("/p", std::unexpected(CodeSigningFailure{errSecCSUnsigned, "/p: no signature"}));
  EXPECT_EQ(asText(report, "valid"), "/p: no signature (-67062)\n");
  EXPECT_EQ(asJson(report).dump(), R"({"path":"/p","status":-67062,"reason":"/p: no signature"})");
}

}  // namespace
