#include "Tools/codeseal/Sealing.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include "Platform/Linux/CodeSigning/BundleVerifier.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Platform/Testing/Machine/FailingSystemCall.h"
#include "Platform/Testing/Machine/FileSizeLimit.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
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

// The bundle and its program come in packages of their own.
TEST_F(SealingTest, AProgramSealedByItsSignatureMayBeReplaced) {
  const auto identity = makeKeys();
  const std::string bundle = bed_.makeUnsealedBundle("Sample.bundle");
  ASSERT_TRUE(sealCode(bundle, identity, options(), false, SealPrograms::kBySignature));
  EXPECT_TRUE(bed_.check(bundle));
  const std::string program = bed_.makeFile("Sample.bundle/Contents/Linux/program",
                                            "\x7f"
                                            "ELF newer program");
  EXPECT_FALSE(bed_.check(bundle));
  ASSERT_TRUE(sealCode(program, identity, options(), false));
  EXPECT_TRUE(bed_.check(bundle));
}

TEST_F(SealingTest, ProgramsSealedByTheirSignaturesNeedIdentifiersOfTheirOwn) {
  const auto identity = makeKeys();
  const std::string bundle = bed_.makeUnsealedBundle("Sample.bundle");
  bed_.makeFile("Sample.bundle/Contents/Linux/another");
  const auto refused = sealCode(bundle, identity, CodeSigningBed::options("same"), false,
                                SealPrograms::kBySignature);
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().context,
              testing::AllOf(testing::StartsWith(bundle + "/Contents/Linux/program: "),
                             HasSubstr("\"same\"")));
  EXPECT_TRUE(sealCode(bundle, identity, options(), false, SealPrograms::kBySignature));
  EXPECT_TRUE(bed_.check(bundle));
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

TEST_F(SealingTest, AFolderThatIsNoBundleIsRefused) {
  const auto identity = makeKeys();
  bed_.folder().write("opt/text", "text");
  const std::string folder = bed_.folder().path("opt");
  const auto refused = sealCode(folder, identity, options(), false);
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().context, testing::HasSubstr("opt: is no bundle"));
  EXPECT_FALSE(std::filesystem::exists(folder + "/_CodeSignature"));
  bed_.folder().write("opt/Info.plist", "<plist version=\"1.0\"><dict/></plist>");
  EXPECT_TRUE(sealCode(folder, identity, options(), false));
}

TEST_F(SealingTest, ALinkIsRefusedAndItsBundleStaysValid) {
  const auto identity = makeKeys();
  const std::string bundle = bed_.makeBundle("X.bundle");
  const std::string link = bed_.folder().path("L.bundle");
  std::filesystem::create_symlink("X.bundle", link);
  const auto sealed = sealCode(link, identity, options(), false);
  ASSERT_FALSE(sealed);
  EXPECT_EQ(sealed.error().context, link + ": is a symbolic link; name the real path");
  EXPECT_TRUE(bed_.check(bundle));
}

TEST_F(SealingTest, ASealingThatFailsLeavesTheBundleAsItWas) {
  const auto identity = makeKeys();
  const std::string bundle = bed_.makeBundle("X.bundle");
  bed_.makeProgram("X.bundle/Contents/Linux/another");
  const std::string program = contentOfFile(bundle + "/Contents/Linux/program");
  const std::string seal = contentOfFile(bundle + "/Contents/_CodeSignature/CodeResources");
  const auto expectSame = [&] {
    EXPECT_EQ(contentOfFile(bundle + "/Contents/Linux/program"), program);
    EXPECT_EQ(contentOfFile(bundle + "/Contents/_CodeSignature/CodeResources"), seal);
    for (const auto& entry : std::filesystem::directory_iterator(bed_.folder().path())) {
      EXPECT_FALSE(entry.path().filename().string().starts_with(".codeseal")) << entry.path();
    }
  };
  std::size_t room = 0;
  for (bool isSealed = false; !isSealed; room += 100) {
    const FullDisk disk(room);
    isSealed = sealCode(bundle, identity, options(), false).has_value();
    if (!isSealed) expectSame();
    ASSERT_LT(room, 100'000u);
  }
  EXPECT_GT(room, 500u);
  EXPECT_TRUE(bed_.check(bundle));
  EXPECT_TRUE(bed_.check(bundle + "/Contents/Linux/another"));
}

TEST_F(SealingTest, AFailureNamesTheBundleAndNotItsCopy) {
  const auto identity = makeKeys();
  const std::string bundle = bed_.makeBundle("X.bundle");
  const std::string cut = contentOfFile(bundle + "/Contents/Linux/program");
  bed_.makeFile("X.bundle/Contents/Linux/program", cut.substr(0, cut.size() - 1));
  const auto sealed = sealCode(bundle, identity, options(), false);
  ASSERT_FALSE(sealed);
  EXPECT_THAT(sealed.error().context, testing::StartsWith(bundle + "/Contents/Linux/program: "));
}

TEST_F(SealingTest, ABundleKeepsItsModesTimesAndLinks) {
  const auto identity = makeKeys();
  const std::string bundle = bed_.makeBundle("X.bundle");
  const std::string folder = bundle + "/Contents/Resources";
  ASSERT_EQ(::chmod(folder.c_str(), 0750), 0);
  const auto time = std::filesystem::last_write_time(folder) - std::chrono::hours(1);
  std::filesystem::last_write_time(folder, time);
  ASSERT_TRUE(sealCode(bundle, identity, options(), false));
  EXPECT_EQ(modeOf(folder), 0750u);
  EXPECT_EQ(std::filesystem::last_write_time(folder), time);
  EXPECT_EQ(std::filesystem::read_symlink(folder + "/link"), "text");
  EXPECT_TRUE(bed_.check(bundle));
}

TEST_F(SealingTest, ABundleIsSealedAlsoWithoutHardLinksAndExchanges) {
  const auto identity = makeKeys();
  for (const unsigned int call : {SYS_link, SYS_renameat2}) {
    const std::string bundle = bed_.makeBundle("X" + std::to_string(call) + ".bundle");
    bed_.folder().write("X" + std::to_string(call) + ".bundle/Contents/more", "text");
    withFailingSystemCall(call, EINVAL,
                          [&] { EXPECT_TRUE(sealCode(bundle, identity, options(), false)); });
    EXPECT_TRUE(bed_.check(bundle));
    EXPECT_EQ(contentOfFile(bundle + "/Contents/more"), "text");
  }
  for (const auto& entry : std::filesystem::directory_iterator(bed_.folder().path())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(".codeseal")) << entry.path();
  }
}

// Their capability is one of the extended attributes.
TEST_F(SealingTest, AProgramKeepsItsAttributes) {
  const auto identity = makeKeys();
  const std::string program = bed_.makeFile("bin/program");
  if (::setxattr(program.c_str(), "user.note", "x", 1, 0) != 0) GTEST_SKIP() << "no attributes";
  ASSERT_TRUE(sealCode(program, identity, options(), false));
  char value = 0;
  EXPECT_EQ(::getxattr(program.c_str(), "user.note", &value, 1), 1);
  EXPECT_EQ(value, 'x');
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
