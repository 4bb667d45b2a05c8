#include "Platform/SystemFacts/Uuid.h"

#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(UuidTest, ItIsRandomInItsStandardUpperCaseForm) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = newUuidString();
    ASSERT_THAT(uuid, testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB]"
                                            "[0-9A-F]{3}-[0-9A-F]{12}"));
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace platform
