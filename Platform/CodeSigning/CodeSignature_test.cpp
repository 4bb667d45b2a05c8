#include "Platform/CodeSigning/CodeSignature.h"

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

}  // namespace
}  // namespace platform
