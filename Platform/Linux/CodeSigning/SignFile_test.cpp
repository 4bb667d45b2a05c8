// Programs signed by the kernel's own sign-file, which comes from a package.

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"

namespace platform {
namespace {

using testing::HasSubstr;

constexpr const char* kSignFile = "/usr/lib/linux-kbuild-6.1/scripts/sign-file";

class SignFileTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(std::filesystem::exists(kSignFile)) << "Debian's linux-kbuild-6.1 is missing";
    write("key.pem", pemOfKey(signer().key.get()).value());
    write("certificate.pem", pemOfCertificate(signer().chain.front().get()).value());
  }

  static const SigningIdentity& signer() { return CodeSigningBed::foreignSigner(); }

  void write(const std::string& name, const std::string& content) {
    bed_.folder().write("keys/" + name, content);
  }

  void sign(const std::string& path, std::string digest) {
    std::vector<std::string> arguments{kSignFile, std::move(digest),
                                       bed_.folder().path("keys/key.pem"),
                                       bed_.folder().path("keys/certificate.pem"), path};
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    pid_t pid = 0;
    ASSERT_EQ(::posix_spawn(&pid, kSignFile, nullptr, nullptr, pointers.data(), environ), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_EQ(status, 0);
  }

  CodeSigningBed bed_;
};

TEST_F(SignFileTest, ItsSignatureIsAcceptedWhenItsCertificateIsAnAnchor) {
  const std::string path = bed_.makeFile("bin/program");
  sign(path, "sha256");
  const CodeSigningFailure failure = bed_.refusal(path);
  EXPECT_EQ(failure.status, errSecCSReqFailed);
  EXPECT_THAT(failure.reason, HasSubstr("neither in it nor among the anchors"));
  bed_.anchor("signer.pem", signer());
  const auto verdict = bed_.check(path);
  EXPECT_TRUE(verdict) << verdict.error().reason;
  const auto statement = readProgramSignature(path);
  ASSERT_TRUE(statement);
  EXPECT_FALSE(statement->identifier);
  EXPECT_FALSE(statement->signingTime);
}

TEST_F(SignFileTest, AByteChangedAfterwardsIsRefused) {
  bed_.anchor("signer.pem", signer());
  const std::string path = bed_.makeFile("bin/program");
  sign(path, "sha512");
  EXPECT_TRUE(bed_.check(path));
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out).seekp(1).put('X');
  const CodeSigningFailure failure = bed_.refusal(path);
  EXPECT_EQ(failure.status, errSecCSSignatureFailed);
  EXPECT_THAT(failure.reason, HasSubstr("the code or the signature was changed"));
}

TEST_F(SignFileTest, ItsWeakDigestIsRefused) {
  bed_.anchor("signer.pem", signer());
  const std::string path = bed_.makeFile("bin/program");
  sign(path, "sha1");
  const CodeSigningFailure failure = bed_.refusal(path);
  EXPECT_EQ(failure.status, errSecCSReqFailed);
  EXPECT_THAT(failure.reason, HasSubstr("uses the digest sha1"));
}

TEST_F(SignFileTest, OurSignatureReplacesIt) {
  const std::string path = bed_.makeFile("bin/program");
  sign(path, "sha256");
  ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
  ASSERT_TRUE(signProgram(path, CodeSigningBed::signer(), CodeSigningBed::options()));
  EXPECT_EQ(::access(path.c_str(), X_OK), 0);
  EXPECT_TRUE(bed_.check(path));
}

}  // namespace
}  // namespace platform
