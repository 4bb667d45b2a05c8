#include "Platform/Linux/Systemd/UnitNames.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(UnitNamesTest, OnlyCharactersOfUnitNamesStay) {
  EXPECT_EQ(escapedForUnitName("aZ09:_."), "aZ09:_.");
  EXPECT_EQ(escapedForUnitName("a-b/c\\d"), "a\\x2db-c\\x5cd");
  EXPECT_EQ(escapedForUnitName(".a"), "\\x2ea");
  EXPECT_EQ(escapedForUnitName("\xc3\xa4"), "\\xc3\\xa4");
}

TEST(UnitNamesTest, APathHasOnlyLettersAndDigits) {
  EXPECT_EQ(unitObjectPath("vantor-a.service"),
            "/org/freedesktop/systemd1/unit/vantor_2da_2eservice");
  EXPECT_EQ(unitObjectPath("1a"), "/org/freedesktop/systemd1/unit/_31a");
}

}  // namespace
}  // namespace platform
