#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(GlobalSettingsDomainsTest, EveryDomainHasNamesOfItsOwn) {
  std::set<std::string> names;
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) {
    names.insert({domain.prefix, domain.connectionName, domain.startNotification});
  }
  EXPECT_EQ(names.size(), 3 * kGlobalSettingsDomains.size());
}

}  // namespace
