#include "ServiceManager/Catalogue/FeatureSwitches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using testing::IsEmpty;

// The configurations of the service "scanner" that has these features.
std::optional<std::vector<FeatureConfiguration>> configurationsOf(Value features,
                                                                  Dictionary allFeatures) {
  const ServiceCatalogue catalogue(
      Dictionary{{"Services", Dictionary{{"scanner", Dictionary{{"Features", features}}}}},
                 {"Features", std::move(allFeatures)}});
  return featureConfigurations(catalogue, "scanner");
}

Dictionary featureWithConfig(Array configurations) {
  return {{"Config", std::move(configurations)}};
}

void expectConfiguration(const FeatureConfiguration& configuration, const char* feature,
                         std::optional<std::string> source, const Dictionary& switches) {
  EXPECT_EQ(configuration.feature, feature);
  EXPECT_EQ(configuration.source, source);
  EXPECT_EQ(configuration.switches, switches);
}

TEST(FeatureSwitchesTest, ConfigurationsAreInTheCataloguesOrder) {
  const Dictionary first{{"Source", "update"}, {"Switches", Dictionary{{"z", 1}, {"a", "on"}}}};
  const Dictionary second{{"Source", "common"}, {"Switches", Dictionary{{"b", true}}}};
  const Dictionary other{{"Source", "update"}, {"Switches", Dictionary{{"c", 1}}}};
  const auto all =
      configurationsOf(Array{"scan", "guard"}, {{"guard", featureWithConfig({other})},
                                                {"unused", featureWithConfig({other})},
                                                {"scan", featureWithConfig({first, second})}});
  ASSERT_TRUE(all);
  ASSERT_EQ(all->size(), 3u);
  expectConfiguration(all->at(0), "scan", "update", {{"z", 1}, {"a", "on"}});
  EXPECT_EQ(all->at(0).switches.begin()->first, "z");
  expectConfiguration(all->at(1), "scan", "common", {{"b", true}});
  expectConfiguration(all->at(2), "guard", "update", {{"c", 1}});
}

TEST(FeatureSwitchesTest, AFeatureThatIsNamedTwiceIsReadTwice) {
  const auto all = configurationsOf(Array{"scan", "scan"},
                                    {{"scan", featureWithConfig({Dictionary{{"Source", "a"}}})}});
  ASSERT_TRUE(all);
  EXPECT_EQ(all->size(), 2u);
}

TEST(FeatureSwitchesTest, AConfigurationWithoutSwitchesIsIncluded) {
  const auto all = configurationsOf(
      Array{"scan"},
      {{"scan", featureWithConfig({Dictionary{{"Source", "common"}},
                                   Dictionary{{"Source", "update"}, {"Switches", Array{"a"}}}})}});
  ASSERT_TRUE(all);
  ASSERT_EQ(all->size(), 2u);
  expectConfiguration(all->at(0), "scan", "common", {});
  expectConfiguration(all->at(1), "scan", "update", {});
}

TEST(FeatureSwitchesTest, AConfigurationMayHaveNoSource) {
  const auto all = configurationsOf(
      Array{"scan"}, {{"scan", featureWithConfig({Dictionary{{"Switches", Dictionary{{"a", 1}}}},
                                                  Dictionary{{"Source", 5}}, "common"})}});
  ASSERT_TRUE(all);
  ASSERT_EQ(all->size(), 3u);
  expectConfiguration(all->at(0), "scan", std::nullopt, {{"a", 1}});
  expectConfiguration(all->at(1), "scan", std::nullopt, {});
  expectConfiguration(all->at(2), "scan", std::nullopt, {});
}

TEST(FeatureSwitchesTest, AFeatureWithoutConfigHasNoConfiguration) {
  const auto all = configurationsOf(
      Array{"none", "text", "number", "unknown", 5},
      {{"none", Dictionary{}}, {"text", Dictionary{{"Config", "common"}}}, {"number", 5}});
  ASSERT_TRUE(all);
  EXPECT_THAT(*all, IsEmpty());
}

TEST(FeatureSwitchesTest, AServiceWithoutFeaturesHasNoConfiguration) {
  const auto all = configurationsOf(Array{}, {});
  ASSERT_TRUE(all);
  EXPECT_THAT(*all, IsEmpty());
}

TEST(FeatureSwitchesTest, FeaturesMustBeAnArray) {
  for (const Value& features : {Value("scan"), Value(5), Value(Dictionary{{"scan", 1}})}) {
    EXPECT_FALSE(configurationsOf(features, {{"scan", featureWithConfig({Dictionary{}})}}));
  }
  const ServiceCatalogue core(
      Dictionary{{"Services", Dictionary{{"agent", Dictionary{{"JobSpec", Dictionary{}}}}}}});
  EXPECT_FALSE(featureConfigurations(core, "agent"));
  EXPECT_FALSE(featureConfigurations(core, "unknown"));
  EXPECT_FALSE(featureConfigurations(core, std::nullopt));
}

}  // namespace
