#include "Tools/servicemanagerctl/ServiceQuery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using testing::HasSubstr;

TEST(ServiceQueryTest, TheBannerTellsWhatIsNotAsUsual) {
  EXPECT_EQ(bannerOf(Dictionary{{kFactOperatingMode, 0}, {kFactIsInstallerAtWork, false}}), "");
  EXPECT_THAT(bannerOf(Dictionary{{kFactOperatingMode, 1}}), HasSubstr("An installer is at work"));
  const std::string both = bannerOf(Dictionary{
      {kFactOperatingMode, 2}, {kFactIsInstallerAtWork, true}, {kFactPrimary, "configd"}});
  EXPECT_THAT(both, HasSubstr("An installer is at work"));
  EXPECT_THAT(both, HasSubstr("\"servicemanagerctl explain configd\""));
  EXPECT_EQ(bannerOf(Dictionary{{kFactSettingsEvaluationIn, 1.9}}),
            "A setting was changed: everything is evaluated in 1.9 s.\n");
}

}  // namespace
