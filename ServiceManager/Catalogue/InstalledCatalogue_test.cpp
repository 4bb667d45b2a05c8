#include "ServiceManager/Catalogue/InstalledCatalogue.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"
#include "Platform/Testing/Files/FakeFileReader.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kResources[] = "/Daemon.bundle/Contents/Resources";
constexpr char kPlist[] = "/Daemon.bundle/Contents/Resources/Service.plist";
constexpr char kProductFile[] = "/opt/app/product.plist";
constexpr char kPersonalType[] = "kKLXInstallTypePersonalID";
constexpr char kHouseholdType[] = "kKLXInstallTypeHouseholdID";
constexpr char kHouseholdGuidOfProduct[] = "3D8F1A20-6B4C-4E7A-9C11-5A2E7B90C4D1";

constexpr char kNoPrimaryLine[] =
    "3 Malformed configuration file. Unable to resolve primary service information";
constexpr char kNoProductLine[] =
    "3 Malformed configuration file. Unable to resolve product information";
constexpr char kUnknownProductLine[] = "3 Uknown product type. Unable to resolve GUID";

class InstalledCatalogueTest : public testing::Test {
 protected:
  static Dictionary serviceOf(Array products) {
    return {{"Products", std::move(products)}, {"JobSpec", Dictionary{{"Program", "bin/program"}}}};
  }
  static Dictionary servicePlist() {
    return {{"Services", Dictionary{{"foreign", serviceOf({kPersonalType})},
                                    {"helper", serviceOf({kHouseholdType, kPersonalType})},
                                    {"configd", serviceOf({kHouseholdType})}}},
            {"Primary", "configd"},
            {"ProgramPath", "/opt/app"},
            {"ProductInfo", "product.plist"},
            {"ProductInfoKey", "GUID"}};
  }
  static Dictionary servicePlistWith(const char* key, Value value) {
    Dictionary changed = servicePlist();
    changed.set(key, std::move(value));
    return changed;
  }
  static Dictionary servicePlistWithout(const char* key) {
    Dictionary changed = servicePlist();
    changed.remove(key);
    return changed;
  }

  template <typename T>
  static void expectError(const StartUpResult<T>& result, const char* error,
                          const std::string& description) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().error, error);
    EXPECT_EQ(result.error().description, description);
  }
  void expectNoPrimary() {
    expectError(readServicePlist(files_, kResources), "Malformed Configuration",
                "Unable to resolve primary service information");
  }
  void expectNoPrimaryIn(const Value& plist) {
    files_.addPropertyList(kPlist, plist);
    expectNoPrimary();
    EXPECT_THAT(lines_.take(),
                ElementsAre(StartsWith("3 " + std::string(kPlist) + ": "), kNoPrimaryLine));
  }
  void expectNoProductInformation(const Value& plist) {
    expectError(readInstalledProduct(files_, plist), "Malformed Configuration",
                "Unable to resolve product information");
  }
  void expectUnknownProduct(const Value& plist) {
    expectError(readInstalledProduct(files_, plist), "Unkown product type",
                "Unable to resolve GUID");
    EXPECT_THAT(lines_.take(), ElementsAre(kUnknownProductLine));
  }

  Logger2Lines lines_;
  FakeFileReader files_;
};

// Service.plist.

TEST_F(InstalledCatalogueTest, TheCatalogueIsReadFromTheBundlesResources) {
  files_.addPropertyList(kPlist, servicePlist());
  const auto plist = readServicePlist(files_, kResources);
  ASSERT_TRUE(plist);
  EXPECT_EQ(*plist, Value(servicePlist()));
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(InstalledCatalogueTest, AnAbsentCatalogueIsMalformed) {
  expectNoPrimary();
  EXPECT_THAT(lines_.take(),
              ElementsAre(MatchesRegex("3 .*" + std::string(kPlist) + ".*"), kNoPrimaryLine));
}

TEST_F(InstalledCatalogueTest, TheReasonOfAMalformedCatalogueIsLogged) {
  files_.addFile(kPlist, "<plist><dict></plist>");
  expectNoPrimary();
  EXPECT_THAT(lines_.take(),
              ElementsAre(MatchesRegex("3 .*" + std::string(kPlist) + ":1:.*"), kNoPrimaryLine));
}

TEST_F(InstalledCatalogueTest, ACatalogueThatIsNoDictionaryIsMalformed) {
  files_.addPropertyList(kPlist, Array{servicePlist()});
  expectNoPrimary();
  EXPECT_THAT(lines_.take(),
              ElementsAre("3 " + std::string(kPlist) + ": expected a dictionary", kNoPrimaryLine));
}

TEST_F(InstalledCatalogueTest, ACatalogueNeedsAPrimaryServiceWithAJob) {
  for (const char* key : {"Services", "Primary", "ProgramPath"}) {
    SCOPED_TRACE(key);
    expectNoPrimaryIn(servicePlistWithout(key));
    expectNoPrimaryIn(servicePlistWith(key, 5));
  }
  expectNoPrimaryIn(servicePlistWith("Primary", "unknown"));
  expectNoPrimaryIn(servicePlistWith("Services", Dictionary{{"configd", Dictionary{}}}));
  const Dictionary withoutProgram{{"JobSpec", Dictionary{{"UserName", "root"}}}};
  expectNoPrimaryIn(servicePlistWith("Services", Dictionary{{"configd", withoutProgram}}));
}

TEST_F(InstalledCatalogueTest, TheCauseNamesTheFileAndTheKey) {
  files_.addPropertyList(kPlist, servicePlistWith("Primary", "unknown"));
  EXPECT_EQ(readServicePlist(files_, kResources).error().cause,
            std::string(kPlist) + ": \"Services\" has no \"unknown\", which is the \"Primary\"");
  files_.addPropertyList(kPlist, servicePlistWithout("ProgramPath"));
  EXPECT_EQ(readServicePlist(files_, kResources).error().cause,
            std::string(kPlist) + ": \"ProgramPath\" is missing or no text");
  lines_.take();
}

// The product's information file.

TEST_F(InstalledCatalogueTest, TheProductIsReadFromItsInformationFile) {
  files_.addPropertyList(kProductFile, Dictionary{{"GUID", kHouseholdGuidOfProduct}});
  const auto product = readInstalledProduct(files_, servicePlist());
  ASSERT_TRUE(product);
  ASSERT_TRUE(*product);
  EXPECT_EQ((*product)->installTypeName, kHouseholdType);
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(InstalledCatalogueTest, AnAbsentInformationFileIsMalformed) {
  expectNoProductInformation(servicePlist());
  EXPECT_THAT(lines_.take(),
              ElementsAre(MatchesRegex("7 .*" + std::string(kProductFile) + ".*"), kNoProductLine));
}

TEST_F(InstalledCatalogueTest, AnInformationFileThatIsNoDictionaryIsMalformed) {
  files_.addPropertyList(kProductFile, kHouseholdGuidOfProduct);
  expectNoProductInformation(servicePlist());
  EXPECT_THAT(
      lines_.take(),
      ElementsAre("7 " + std::string(kProductFile) + ": expected a dictionary", kNoProductLine));
}

TEST_F(InstalledCatalogueTest, TheInformationFileNeedsItsPath) {
  files_.addPropertyList(kProductFile, Dictionary{{"GUID", kHouseholdGuidOfProduct}});
  for (const char* key : {"ProgramPath", "ProductInfo"}) {
    SCOPED_TRACE(key);
    expectNoProductInformation(servicePlistWithout(key));
    expectNoProductInformation(servicePlistWith(key, 5));
    EXPECT_THAT(lines_.take(), ElementsAre(kNoProductLine, kNoProductLine));
  }
}

TEST_F(InstalledCatalogueTest, AProductWithoutAKnownGuidIsUnknown) {
  for (const Dictionary& information :
       {Dictionary{}, Dictionary{{"Another", kHouseholdGuidOfProduct}}, Dictionary{{"GUID", 5}},
        Dictionary{{"GUID", ""}}, Dictionary{{"GUID", "3d8f1a20-6b4c-4e7a-9c11-5a2e7b90c4d1"}}}) {
    files_.addPropertyList(kProductFile, information);
    expectUnknownProduct(servicePlist());
  }
}

TEST_F(InstalledCatalogueTest, WithoutTheGuidsKeyTheProductIsUnknown) {
  files_.addPropertyList(kProductFile, Dictionary{{"GUID", kHouseholdGuidOfProduct}});
  expectUnknownProduct(servicePlistWithout("ProductInfoKey"));
  expectUnknownProduct(servicePlistWith("ProductInfoKey", 5));
}

// The services of the product.

TEST_F(InstalledCatalogueTest, ACatalogueHasTheProductsServicesAlone) {
  const auto catalogue = catalogueOfProduct(servicePlist(), kHouseholdType);
  ASSERT_TRUE(catalogue);
  EXPECT_EQ(catalogue->services(),
            Value(Dictionary{{"helper", serviceOf({kHouseholdType, kPersonalType})},
                             {"configd", serviceOf({kHouseholdType})}}));
  EXPECT_EQ(catalogue->services().dictionary()->begin()->first, "helper");
  EXPECT_EQ(catalogue->primaryLabel(), "configd");
  EXPECT_EQ(catalogue->serviceInfo()["ProgramPath"], Value("/opt/app"));
  EXPECT_EQ(catalogue->otherProductsServices(), (Dictionary{{"foreign", Array{kPersonalType}}}));
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(InstalledCatalogueTest, APrimaryServiceOfAnotherProductIsAnErrorInTheLog) {
  const auto catalogue = catalogueOfProduct(servicePlistWith("Primary", "foreign"), kHouseholdType);
  ASSERT_TRUE(catalogue);
  EXPECT_TRUE(catalogue->jobInfo(catalogue->primaryLabel()).isNil());
  EXPECT_THAT(lines_.take(),
              ElementsAre("3 The primary service foreign does not belong to the current product: "
                          "kKLXInstallTypeHouseholdID. No service is evaluated"));
}

TEST_F(InstalledCatalogueTest, AProductWithoutAServiceIsUnknown) {
  const std::string why =
      "Unable to resolve services that match the current product: kKLXInstallTypeUnmanagedID";
  for (const Value& plist : {Value(servicePlist()), Value(servicePlistWith("Services", 5)),
                             Value(servicePlistWithout("Services"))}) {
    expectError(catalogueOfProduct(plist, "kKLXInstallTypeUnmanagedID"), "Uknown product type",
                why);
    EXPECT_THAT(lines_.take(), ElementsAre("3 Cannot resolve product services. " + why));
  }
}

}  // namespace
