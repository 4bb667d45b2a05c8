#include "Libraries/Static/Interprocess Communications/utilities/BootTime.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using platform::Error;
using platform::ErrorCode;

TEST(BootTimeTest, IsInWholeSecondsAndReadEachTime) {
  platform::FakeSystemInformation system;
  EXPECT_EQ(systemBootTime(system), 1767323045.0);
  system.setBootTime(0);
  EXPECT_EQ(systemBootTime(system), 0.0);
  system.setBootTime(4'294'967'296);
  EXPECT_EQ(systemBootTime(system), 4294967296.0);
}

TEST(BootTimeTest, AFailureIsMinusOneAndASystemError) {
  platform::FakeSystemInformation system;
  system.setBootTime(std::unexpected(Error{ErrorCode::kSystem, EACCES, "/proc/stat"}));
  testing::internal::CaptureStderr();
  const double seconds = systemBootTime(system);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string("sysctl: ") + std::strerror(EACCES) + "\n");
  EXPECT_EQ(seconds, -1.0);
}

TEST(BootTimeTest, AFailureWithoutASystemErrorNamesTheFault) {
  platform::FakeSystemInformation system;
  system.setBootTime(std::unexpected(Error{ErrorCode::kInvalid, 0, "no line \"btime\""}));
  testing::internal::CaptureStderr();
  const double seconds = systemBootTime(system);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "sysctl: no line \"btime\"\n");
  EXPECT_EQ(seconds, -1.0);
}

TEST(BootTimeTest, ThisMachinesLiesAfterTheYear2000) {
  const platform::LinuxSystemInformation system(platform::PlatformConfiguration(), "/proc");
  const double seconds = systemBootTime(system);
  EXPECT_GT(seconds, 946'684'800.0);
  EXPECT_EQ(seconds, std::trunc(seconds));
}

}  // namespace
