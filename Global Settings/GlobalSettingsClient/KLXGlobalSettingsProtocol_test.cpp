#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"

#include <gtest/gtest.h>

namespace {

// Clients and servers of different releases check it, so the number must stay.
TEST(KLXGlobalSettingsProtocolTest, ASettingMayHave64KiB) {
  EXPECT_EQ(kKLXGlobalSettingsMaxSettingBytes, 65536u);
}

}  // namespace
