#include "Platform/CodeSigning/CodeSignature.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(SecRequirementTest, AcceptsTheOnlyRequirementWithAnyBlanks) {
  for (const char* text : {"anchor apple generic", "  anchor\tapple \n generic "}) {
    const auto requirement = SecRequirementCreateWithString(text);
    ASSERT_TRUE(requirement) << text;
    EXPECT_EQ(requirement->text(), "anchor apple generic");
  }
}

TEST(SecRequirementTest, RefusesEveryOtherText) {
  for (const char* text : {"", "anchor", "anchor apple", "anchorapple generic",
                           "anchor apple generic and identifier \"x\"", "Anchor Apple Generic"}) {
    const auto requirement = SecRequirementCreateWithString(text);
    ASSERT_FALSE(requirement) << text;
    EXPECT_EQ(requirement.error().status, errSecCSReqFailed);
  }
}

TEST(CodeSigningFailureTest, IsAnErrorObjectWithStatusAndReason) {
  EXPECT_EQ(errorObject({errSecCSUnsigned, "/p: carries no signature"}),
            (NSError{"NSOSStatusErrorDomain", -67062, "/p: carries no signature"}));
}

TEST(CodeVerdictTest, OnlyAFaultOfTheCodeIsDamage) {
  const auto verdict = [](OSStatus status) { return verdictOf({status, "reason"}); };
  EXPECT_EQ(verdict(errSecCSUnsigned), CodeVerdict::kNotSigned);
  for (const OSStatus status :
       {errSecCSSignatureFailed, errSecCSBadResource, errSecCSReqFailed, errSecCSBadObjectFormat}) {
    EXPECT_EQ(verdict(status), CodeVerdict::kDamaged) << status;
  }
  for (const int number : {EPERM, ENOENT, ENOTDIR, EISDIR, ELOOP, ENAMETOOLONG, EINVAL, EFBIG}) {
    EXPECT_EQ(verdict(kErrnoStatusBase + number), CodeVerdict::kDamaged) << number;
  }
  for (const int number : {EMFILE, ENFILE, ENOMEM, EIO, EAGAIN, EINTR, EACCES, ESTALE, ENOTCONN}) {
    EXPECT_EQ(verdict(kErrnoStatusBase + number), CodeVerdict::kUnknown) << number;
  }
}

TEST(CodeProtectionTest, EachHasAWordAndASentence) {
  EXPECT_EQ(protectionWord(CodeProtection::kVerity), "fs-verity");
  EXPECT_EQ(protectionWord(CodeProtection::kImmutable), "immutable");
  EXPECT_EQ(protectionWord(CodeProtection::kRecheck), "re-check");
  for (const auto protection :
       {CodeProtection::kVerity, CodeProtection::kImmutable, CodeProtection::kRecheck}) {
    const std::string_view word = protectionWord(protection);
    EXPECT_NE(describeProtection(word).find(word), std::string_view::npos) << word;
  }
}

}  // namespace
}  // namespace platform
