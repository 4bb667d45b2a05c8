#include "ServiceManager/Catalogue/ServiceCatalogue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

Dictionary serviceWithProgram(const char* program) {
  return {{"JobSpec", Dictionary{{"Program", program}}}};
}

ServiceCatalogue catalogueOf(Dictionary services) {
  return ServiceCatalogue(Dictionary{{"Services", std::move(services)},
                                     {"Primary", "configd"},
                                     {"ProgramPath", "/opt/app"},
                                     {"Features", Dictionary{{"scan", Dictionary{{"a", 1}}}}},
                                     {"KernelExtensions", Dictionary{{"net", Dictionary{}}}}});
}

TEST(ServiceCatalogueTest, AnEmptyOneHasNoService) {
  const ServiceCatalogue empty;
  EXPECT_TRUE(empty.serviceInfo().isNil());
  EXPECT_TRUE(empty.services().isNil());
  EXPECT_TRUE(empty.otherProductsServices().empty());
  EXPECT_EQ(empty.primaryLabel(), "");
  EXPECT_EQ(empty.labelForNotification("up"), std::nullopt);
  EXPECT_TRUE(empty.service("agent").isNil());
  EXPECT_TRUE(empty.jobInfo("agent").isNil());
  EXPECT_TRUE(empty.feature("scan").isNil());
  EXPECT_THAT(empty.extensionsOf("agent"), IsEmpty());
  EXPECT_THAT(empty.daemonsUsingKext("net"), IsEmpty());
  EXPECT_TRUE(empty.extensions().isNil());
}

TEST(ServiceCatalogueTest, HasThePartsOfItsDictionary) {
  const Dictionary services{{"agent", serviceWithProgram("bin/agent")}};
  const ServiceCatalogue catalogue = catalogueOf(services);
  EXPECT_EQ(catalogue.services(), Value(services));
  EXPECT_EQ(catalogue.serviceInfo()["Services"], Value(services));
  EXPECT_EQ(catalogue.primaryLabel(), "configd");
  EXPECT_EQ(catalogue.service("agent"), services["agent"]);
  EXPECT_TRUE(catalogue.service("unknown").isNil());
  EXPECT_TRUE(catalogue.service(std::nullopt).isNil());
  EXPECT_EQ(catalogue.jobInfo("agent")["Program"], Value("/opt/app/bin/agent"));
  EXPECT_EQ(catalogue.jobInfo("agent")["Label"], Value("agent"));
  EXPECT_EQ(catalogue.feature("scan"), Value(Dictionary{{"a", 1}}));
  EXPECT_TRUE(catalogue.feature("agent").isNil());
  EXPECT_EQ(catalogue.extensions(), Value(Dictionary{{"net", Dictionary{}}}));
}

TEST(ServiceCatalogueTest, KnowsTheTypeOfEachService) {
  const ServiceCatalogue catalogue =
      catalogueOf({{"agent", Dictionary{}}, {"scanner", Dictionary{{"Features", Array{}}}}});
  EXPECT_EQ(catalogue.serviceType("agent"), kCoreService);
  EXPECT_EQ(catalogue.serviceType("scanner"), kFeatureService);
  EXPECT_EQ(catalogue.serviceType("unknown"), kCoreService);
}

TEST(ServiceCatalogueTest, KeepsTheServicesOfOtherProductsApart) {
  const Dictionary others{{"foreign", Array{"kKLXInstallTypePersonalID"}}};
  const ServiceCatalogue catalogue(Dictionary{{"Services", Dictionary{{"agent", Dictionary{}}}}},
                                   others);
  EXPECT_EQ(catalogue.otherProductsServices(), others);
  EXPECT_TRUE(catalogue.service("foreign").isNil());
  EXPECT_TRUE(ServiceCatalogue(catalogue.serviceInfo()).otherProductsServices().empty());
}

TEST(ServiceCatalogueTest, APrimaryLabelOfAnotherTypeIsEmpty) {
  EXPECT_EQ(ServiceCatalogue(Dictionary{{"Primary", 5}}).primaryLabel(), "");
}

TEST(ServiceCatalogueTest, ANotificationNamesTheFirstServiceThatAnnouncesItself) {
  const ServiceCatalogue catalogue =
      catalogueOf({{"mute", Dictionary{}},
                   {"number", Dictionary{{"Notification", 5}}},
                   {"no entry", "up"},
                   {"z", Dictionary{{"Notification", "up"}}},
                   {"a", Dictionary{{"Notification", "up"}}},
                   {"another", Dictionary{{"Notification", "another up"}}}});
  EXPECT_EQ(catalogue.labelForNotification("up"), "z");
  EXPECT_EQ(catalogue.labelForNotification("another up"), "another");
  EXPECT_EQ(catalogue.labelForNotification("Up"), std::nullopt);
  EXPECT_EQ(catalogue.labelForNotification(""), std::nullopt);
}

TEST(ServiceCatalogueTest, ExtensionsAreNamedInTheirOrder) {
  const ServiceCatalogue catalogue =
      catalogueOf({{"agent", Dictionary{{"KernelExtensions", Array{"net", 5, "file", "net"}}}},
                   {"text", Dictionary{{"KernelExtensions", "net"}}},
                   {"none", Dictionary{}}});
  EXPECT_THAT(catalogue.extensionsOf("agent"), ElementsAre("net", "file", "net"));
  EXPECT_THAT(catalogue.extensionsOf("text"), IsEmpty());
  EXPECT_THAT(catalogue.extensionsOf("none"), IsEmpty());
  EXPECT_THAT(catalogue.extensionsOf(std::nullopt), IsEmpty());
}

TEST(ServiceCatalogueTest, AnExtensionHasTheServicesThatNeedIt) {
  const ServiceCatalogue catalogue =
      catalogueOf({{"z", Dictionary{{"KernelExtensions", Array{"file", "net"}}}},
                   {"a", Dictionary{{"KernelExtensions", Array{"net", "net"}}}},
                   {"other", Dictionary{{"KernelExtensions", Array{"file"}}}},
                   {"text", Dictionary{{"KernelExtensions", "net"}}},
                   {"none", Dictionary{}}});
  EXPECT_THAT(catalogue.daemonsUsingKext("net"), ElementsAre("a", "z"));
  EXPECT_THAT(catalogue.daemonsUsingKext("unknown"), IsEmpty());
}

TEST(ServiceCatalogueTest, MalformedServicesAreNone) {
  const ServiceCatalogue catalogue(Dictionary{{"Services", Array{"agent"}}});
  EXPECT_EQ(catalogue.labelForNotification("up"), std::nullopt);
  EXPECT_TRUE(catalogue.service("agent").isNil());
  EXPECT_THAT(catalogue.extensionsOf("agent"), IsEmpty());
  EXPECT_THAT(catalogue.daemonsUsingKext("net"), IsEmpty());
}

TEST(ServiceCatalogueTest, ACopyIsIndependent) {
  ServiceCatalogue catalogue = catalogueOf({{"agent", Dictionary{}}});
  const ServiceCatalogue copy = catalogue;
  catalogue = ServiceCatalogue();
  EXPECT_EQ(copy.service("agent"), Value(Dictionary()));
  EXPECT_EQ(copy.primaryLabel(), "configd");
}

}  // namespace
