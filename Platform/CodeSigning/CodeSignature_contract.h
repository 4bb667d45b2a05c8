#pragma once

// The contract of every source of static code. A test program instantiates it with a harness:
//   INSTANTIATE_TEST_SUITE_P(Fake, CodeSignatureContract,
//                            testing::Values(&makeFakeCodeSignatureHarness));

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/CodeSigning/CodeSignature.h"

namespace platform {

class CodeSignatureHarness {
 public:
  virtual ~CodeSignatureHarness() = default;
  virtual CodeSignatures& signatures() = 0;
  // Makes a validly signed program or bundle and returns its path.
  virtual std::string makeValid(SecStaticCode::Kind kind,
                                std::optional<std::string> identifier) = 0;
  virtual std::string makeUnsigned(SecStaticCode::Kind kind) = 0;
  // Makes code whose signer leads to no anchor.
  virtual std::string makeForeign(SecStaticCode::Kind kind) = 0;
  // Changes signed content of code made here.
  virtual void tamperWith(const std::string& path, SecStaticCode::Kind kind) = 0;
  virtual void remove(const std::string& path) = 0;
  virtual std::string pathOfNothing() = 0;
  // Lets other users write to code made here.
  virtual void openToOthers(const std::string& path) = 0;
  // Makes a symbolic link to code made here, and returns its path.
  virtual std::string linkTo(const std::string& path) = 0;
  // While the result lives, code can't be read for lack of descriptors.
  virtual std::shared_ptr<void> makeShortage() = 0;
};

using CodeSignatureContractParameter =
    std::tuple<std::unique_ptr<CodeSignatureHarness> (*)(), SecStaticCode::Kind>;

class CodeSignatureContract : public testing::TestWithParam<CodeSignatureContractParameter> {
 protected:
  CodeSigningResult<void> check(SecStaticCode& code) { return checkCodeThatRuns(code); }
  CodeSigningResult<void> checkAnywhere(SecStaticCode& code) {
    return code.SecStaticCodeCheckValidityWithErrors(
        kSecCSCheckAllArchitectures, *SecRequirementCreateWithString("anchor apple generic"));
  }

  std::unique_ptr<SecStaticCode> codeAt(const std::string& path) {
    auto code = harness_->signatures().SecStaticCodeCreateWithPath(path);
    if (!code) ADD_FAILURE() << code.error().reason;
    return code ? *std::move(code) : nullptr;
  }

  OSStatus statusOfCheck(const std::string& path) {
    const auto code = codeAt(path);
    const auto verdict = check(*code);
    if (verdict) return errSecSuccess;
    EXPECT_THAT(verdict.error().reason, testing::HasSubstr(path));
    return verdict.error().status;
  }

  std::unique_ptr<CodeSignatureHarness> harness_ = std::get<0>(GetParam())();
  const SecStaticCode::Kind kind_ = std::get<1>(GetParam());
};

TEST_P(CodeSignatureContract, ValidCodeHasItsIdentifier) {
  const auto code = codeAt(harness_->makeValid(kind_, "com.vantor.sample"));
  EXPECT_EQ(code->kind(), kind_);
  const auto verdict = check(*code);
  ASSERT_TRUE(verdict) << verdict.error().reason;
  const auto information = code->SecCodeCopySigningInformation(kSecCSSigningInformation);
  ASSERT_TRUE(information) << information.error().reason;
  EXPECT_EQ((*information)["identifier"], Value("com.vantor.sample"));
  ASSERT_TRUE((*information)["certificates"].array());
  EXPECT_GE((*information)["certificates"].array()->size(), 1u);
}

TEST_P(CodeSignatureContract, CodeWithoutAnIdentifierIsValid) {
  const auto code = codeAt(harness_->makeValid(kind_, std::nullopt));
  ASSERT_TRUE(check(*code));
  const auto information = code->SecCodeCopySigningInformation(kSecCSSigningInformation);
  ASSERT_TRUE(information);
  EXPECT_FALSE(information->contains("identifier"));
}

TEST_P(CodeSignatureContract, WithoutTheFlagTheInformationIsOnlyTheIdentifier) {
  const auto code = codeAt(harness_->makeValid(kind_, "com.vantor.sample"));
  const auto information = code->SecCodeCopySigningInformation(kSecCSDefaultFlags);
  ASSERT_TRUE(information);
  EXPECT_EQ(*information, (Dictionary{{"identifier", "com.vantor.sample"}}));
}

TEST_P(CodeSignatureContract, UnsignedCodeDiffersFromChangedCode) {
  EXPECT_EQ(statusOfCheck(harness_->makeUnsigned(kind_)), errSecCSUnsigned);
  const std::string path = harness_->makeValid(kind_, "com.vantor.sample");
  EXPECT_EQ(statusOfCheck(path), errSecSuccess);
  harness_->tamperWith(path, kind_);
  EXPECT_EQ(statusOfCheck(path),
            kind_ == SecStaticCode::Kind::kBundle ? errSecCSBadResource : errSecCSSignatureFailed);
}

TEST_P(CodeSignatureContract, UnsignedCodeHasNoInformation) {
  const auto code = codeAt(harness_->makeUnsigned(kind_));
  const auto information = code->SecCodeCopySigningInformation(kSecCSSigningInformation);
  ASSERT_FALSE(information);
  EXPECT_EQ(information.error().status, errSecCSUnsigned);
}

TEST_P(CodeSignatureContract, AnotherSignerDoesNotMeetTheRequirement) {
  EXPECT_EQ(statusOfCheck(harness_->makeForeign(kind_)), errSecCSReqFailed);
}

TEST_P(CodeSignatureContract, AMissingFileIsNoCode) {
  const auto code = harness_->signatures().SecStaticCodeCreateWithPath(harness_->pathOfNothing());
  ASSERT_FALSE(code);
  EXPECT_EQ(code.error().status, kErrnoStatusBase + ENOENT);
}

TEST_P(CodeSignatureContract, CodeThatVanishedIsRefused) {
  const std::string path = harness_->makeValid(kind_, "com.vantor.sample");
  const auto code = codeAt(path);
  ASSERT_TRUE(check(*code));
  harness_->remove(path);
  const auto verdict = check(*code);
  ASSERT_FALSE(verdict);
  EXPECT_EQ(verdict.error().status, kErrnoStatusBase + ENOENT);
}

TEST_P(CodeSignatureContract, OnlyCodeThatRunsNeedsATrustedPlace) {
  const std::string path = harness_->makeValid(kind_, "com.vantor.sample");
  harness_->openToOthers(path);
  EXPECT_EQ(statusOfCheck(path), kErrnoStatusBase + EPERM);
  const auto code = codeAt(path);
  const auto verdict = checkAnywhere(*code);
  ASSERT_TRUE(verdict) << verdict.error().reason;
  EXPECT_EQ((*code->SecCodeCopySigningInformation(kSecCSDefaultFlags))["identifier"],
            Value("com.vantor.sample"));
  harness_->tamperWith(path, kind_);
  EXPECT_FALSE(checkAnywhere(*codeAt(path)));
}

TEST_P(CodeSignatureContract, OnlyCodeThatRunsNeedsItsRealPath) {
  const std::string path = harness_->makeValid(kind_, "com.vantor.sample");
  const std::string link = harness_->linkTo(path);
  EXPECT_EQ(statusOfCheck(link), kErrnoStatusBase + ELOOP);
  const auto code = codeAt(link);
  EXPECT_EQ(code->kind(), kind_);
  const auto verdict = checkAnywhere(*code);
  EXPECT_TRUE(verdict) << verdict.error().reason;
}

TEST_P(CodeSignatureContract, AShortageSaysNothingAboutTheCode) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "The sanitizer's check of types needs descriptors itself.";
#endif
  const std::string valid = harness_->makeValid(kind_, "com.vantor.sample");
  for (const std::string& path : {harness_->makeUnsigned(kind_), valid}) {
    const auto code = codeAt(path);
    const auto shortage = harness_->makeShortage();
    const auto verdict = check(*code);
    ASSERT_FALSE(verdict) << path;
    EXPECT_EQ(verdict.error().status, kErrnoStatusBase + EMFILE) << verdict.error().reason;
    EXPECT_EQ(verdictOf(verdict.error()), CodeVerdict::kUnknown);
  }
  EXPECT_EQ(statusOfCheck(valid), errSecSuccess);
}

}  // namespace platform
