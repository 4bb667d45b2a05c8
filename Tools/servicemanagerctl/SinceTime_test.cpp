#include "Tools/servicemanagerctl/SinceTime.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using platform::WallTime;

// In a zone two hours before UTC.
class SinceTimeTest : public testing::Test {
 protected:
  SinceTimeTest() { setZone("ZONE-2"); }
  ~SinceTimeTest() override {
    if (before_) {
      setZone(before_->c_str());
    } else {
      ::unsetenv("TZ");
      ::tzset();
    }
  }

  static std::optional<std::string> zone() {
    const char* const name = std::getenv("TZ");
    return name ? std::optional<std::string>(name) : std::nullopt;
  }
  static void setZone(const char* name) {
    ::setenv("TZ", name, 1);
    ::tzset();
  }

  const std::optional<std::string> before_ = zone();
  const WallTime day_{std::chrono::sys_days(std::chrono::year(2026) / 3 / 15)};
  const WallTime now_ = day_ + 12h;  // 14:00 there
};

TEST_F(SinceTimeTest, ADistanceIsCountedFromNow) {
  EXPECT_EQ(sinceTime("10 min ago", now_), now_ - 10min);
  EXPECT_EQ(sinceTime("90s ago", now_), now_ - 90s);
  EXPECT_EQ(sinceTime("2 hours ago", now_), now_ - 2h);
  EXPECT_EQ(sinceTime("3d ago", now_), now_ - 72h);
  EXPECT_EQ(sinceTime("now", now_), now_);
}

TEST_F(SinceTimeTest, ATimeOfDayIsTheLastOne) {
  EXPECT_EQ(sinceTime("13:59", now_), now_ - 1min);
  EXPECT_EQ(sinceTime("14:00", now_), now_);
  EXPECT_EQ(sinceTime("14:00:01", now_), now_ + 1s - 24h);
}

TEST_F(SinceTimeTest, ADayBeginsAtMidnightOfTheZone) {
  EXPECT_EQ(sinceTime("today", now_), day_ - 2h);
  EXPECT_EQ(sinceTime("yesterday", now_), day_ - 26h);
  EXPECT_EQ(sinceTime("2026-03-15", now_), day_ - 2h);
}

TEST_F(SinceTimeTest, ADateWithATimeIsOfTheZoneOrUtc) {
  EXPECT_EQ(sinceTime("2026-03-15 09:30", now_), day_ + 7h + 30min);
  EXPECT_EQ(sinceTime("2026-03-15T09:30:10", now_), day_ + 7h + 30min + 10s);
  EXPECT_EQ(sinceTime("2026-03-15T09:30:10Z", now_), day_ + 9h + 30min + 10s);
  EXPECT_EQ(sinceTime("@1700000000", now_), WallTime(1'700'000'000s));
}

TEST_F(SinceTimeTest, OtherTextsAreNoTime) {
  for (const char* const text :
       {"", "soon", "10", "min ago", "10 parsecs ago", "-1 min ago", "25:00", "14:00x", "@", "@x",
        "@99999999999999", "2026-13-01", "99999999999 min ago", "1000000 weeks ago"}) {
    EXPECT_EQ(sinceTime(text, now_), std::nullopt) << text;
  }
}

}  // namespace
