#include "Platform/Linux/Logging/ServiceOutputFile.h"

#include <string>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(ServiceOutputFileTest, AUsualLabelIsTheFilesName) {
  EXPECT_EQ(serviceOutputFile("/", "com.example.a"), "/var/log/vantor/services/com.example.a.log");
  EXPECT_EQ(serviceOutputFile("/opt/x", "a-b_1"), "/opt/x/log/services/a-b_1.log");
}

TEST(ServiceOutputFileTest, UnusualCharactersAreEscaped) {
  EXPECT_EQ(outputNameOf("../a b%"), "%2e.%2fa%20b%25");
  EXPECT_EQ(outputNameOf("."), "%2e");
}

TEST(ServiceOutputFileTest, LongLabelsHaveDistinctShortNames) {
  const std::string one = outputNameOf(std::string(255, 'a'));
  const std::string other = outputNameOf(std::string(254, 'a') + "b");
  EXPECT_NE(one, other);
  EXPECT_LE(one.size() + std::string(".log.2").size(), 255U);
  EXPECT_EQ(outputNameOf(std::string(255, '/')).size(), one.size());
}

}  // namespace
}  // namespace platform
