#include "ServiceManager/Catalogue/ProductTypes.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

struct ProductRow {
  const char* guid;
  const char* name;
  bool keepsHealthInfo;
};

class ProductTypesTest : public testing::TestWithParam<ProductRow> {};

TEST_P(ProductTypesTest, AGuidNamesItsInstallType) {
  const ProductType* type = productTypeForGuid(GetParam().guid);
  ASSERT_TRUE(type);
  EXPECT_EQ(type->installTypeName, GetParam().name);
  EXPECT_EQ(type->keepsHealthInfo, GetParam().keepsHealthInfo);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProductTypesTest,
    testing::Values(
        ProductRow{"E60F4B38-97A1-4C25-BD83-0F5C2D7E19A6", "kKLXInstallTypePersonalID", false},
        ProductRow{"5B13D7E2-8C40-4D9F-A27B-6E08F4C1B952", "kKLXInstallTypeServerManagedID", false},
        ProductRow{"A4E92C17-D35B-4A08-8F6C-2B71E0D94A3E", "kKLXInstallTypeUnmanagedID", false},
        ProductRow{"71C0E5B9-2A8D-4F36-B0E4-9D63A1F2C875", "kKLXInstallTypeHostedManagedID", true},
        ProductRow{"3D8F1A20-6B4C-4E7A-9C11-5A2E7B90C4D1", "kKLXInstallTypeHouseholdID", true}));

TEST(ProductTypes, AGuidIsComparedExactly) {
  EXPECT_FALSE(productTypeForGuid("e60f4b38-97a1-4c25-bd83-0f5c2d7e19a6"));
  EXPECT_FALSE(productTypeForGuid("E60F4B38-97A1-4C25-BD83-0F5C2D7E19A6 "));
  EXPECT_FALSE(productTypeForGuid(""));
}

constexpr char kProduct[] = "kKLXInstallTypePersonalID";

std::vector<std::string> labelsOf(const Dictionary& services) {
  std::vector<std::string> labels;
  for (const auto& [label, entry] : services) labels.push_back(label);
  return labels;
}

TEST(ServicesOfProduct, AreInTheCataloguesOrder) {
  const Value services = Dictionary{
      {"z", Dictionary{{"Products", Array{"kKLXInstallTypeHouseholdID", kProduct}}}},
      {"other", Dictionary{{"Products", Array{"kKLXInstallTypeHouseholdID"}}}},
      {"a", Dictionary{{"Products", Array{kProduct}}, {"JobSpec", Dictionary{{"Program", "p"}}}}},
  };
  const Dictionary matching = servicesOfProduct(services, kProduct);
  EXPECT_THAT(labelsOf(matching), ElementsAre("z", "a"));
  EXPECT_EQ(matching["a"], services["a"]);
}

TEST(ServicesOfProduct, AServiceWithTheProductTwiceIsTakenOnce) {
  const Value services = Dictionary{{"twice", Dictionary{{"Products", Array{kProduct, kProduct}}}}};
  EXPECT_THAT(labelsOf(servicesOfProduct(services, kProduct)), ElementsAre("twice"));
}

TEST(ServicesOfProduct, AServiceWithoutProductsBelongsToNone) {
  const Value services = Dictionary{
      {"none", Dictionary{{"JobSpec", Dictionary{}}}},
      {"empty", Dictionary{{"Products", Array{}}}},
      {"text", Dictionary{{"Products", kProduct}}},
      {"numbers", Dictionary{{"Products", Array{1, true}}}},
      {"no entry", kProduct},
  };
  EXPECT_THAT(labelsOf(servicesOfProduct(services, kProduct)), IsEmpty());
  EXPECT_THAT(labelsOf(servicesOfProduct(Value(), kProduct)), IsEmpty());
  EXPECT_THAT(labelsOf(servicesOfProduct("Services", kProduct)), IsEmpty());
}

}  // namespace
