#include <string>

#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/ORBServiceManager.h"

namespace {

using namespace platform;

constexpr char kAgent[] = "com.example.agent";

Value catalogueWithEntry(Dictionary entry) {
  return Dictionary{{"ProgramPath", "/opt/app/"},
                    {"Primary", kAgent},
                    {"Services", Dictionary{{kAgent, std::move(entry)}}}};
}

Value catalogueWithJob(Dictionary jobSpec) {
  return catalogueWithEntry({{"JobSpec", std::move(jobSpec)}});
}

Value job(const Value& catalogue) { return ORBServiceManager::jobInfoWithLabel(kAgent, catalogue); }

TEST(Catalogue, JobsAreKeptAliveAndTheirOutputDiscarded) {
  EXPECT_EQ(ORBServiceManager::defaultJobInfoTemplate(),
            (Dictionary{{"KeepAlive", true},
                        {"StandardOutPath", "/dev/null"},
                        {"StandardErrorPath", "/dev/null"}}));
}

TEST(Catalogue, AJobIsItsJobSpecWithTemplateAndLabel) {
  EXPECT_EQ(job(catalogueWithJob({{"Program", "bin/agent"},
                                  {"ProgramArguments", Array{"agent", "-d"}},
                                  {"UserName", "nobody"},
                                  {"WorkingDirectory", "/tmp"},
                                  {"ThrottleInterval", 3}})),
            Value(Dictionary{{"Label", kAgent},
                             {"Program", "/opt/app/bin/agent"},
                             {"ProgramArguments", Array{"agent", "-d"}},
                             {"UserName", "nobody"},
                             {"WorkingDirectory", "/tmp"},
                             {"ThrottleInterval", 3},
                             {"KeepAlive", true},
                             {"StandardOutPath", "/dev/null"},
                             {"StandardErrorPath", "/dev/null"}}));
}

TEST(Catalogue, AJobCannotOptOutOfBeingKeptAlive) {
  const Value catalogue = catalogueWithJob({{"Program", "a"}, {"KeepAlive", false}});
  EXPECT_EQ(job(catalogue)["KeepAlive"].boolean(), true);
}

TEST(Catalogue, TheTemplateOverridesTheJobSpecsOutputPaths) {
  const Value catalogue = catalogueWithJob(
      {{"Program", "a"}, {"StandardOutPath", "/tmp/out"}, {"StandardErrorPath", "/tmp/error"}});
  EXPECT_EQ(job(catalogue)["StandardOutPath"], Value("/dev/null"));
  EXPECT_EQ(job(catalogue)["StandardErrorPath"], Value("/dev/null"));
}

TEST(Catalogue, TheLabelOverridesTheJobSpecs) {
  const Value catalogue = catalogueWithJob({{"Program", "a"}, {"Label", "another"}});
  EXPECT_EQ(job(catalogue)["Label"], Value(kAgent));
}

TEST(Catalogue, AProgramPathsLastSeparatorIsNotDoubled) {
  EXPECT_EQ(job(catalogueWithJob({{"Program", "bin/agent"}}))["Program"],
            Value("/opt/app/bin/agent"));
}

TEST(Catalogue, AJobHasNoUserOrFolderByDefault) {
  const Value bare = job(catalogueWithJob({{"Program", "a"}}));
  EXPECT_TRUE(bare["UserName"].isNil());
  EXPECT_TRUE(bare["WorkingDirectory"].isNil());
}

TEST(Catalogue, AServiceWithoutAJobSpecHasNoJob) {
  const Value catalogue = catalogueWithEntry({{"Products", Array{}}});
  EXPECT_EQ(ORBServiceManager::serviceTypeForLabel(kAgent, catalogue), "CoreService");
  EXPECT_TRUE(job(catalogue).isNil());
}

TEST(Catalogue, AJobNeedsAProgramAndItsFolder) {
  EXPECT_TRUE(job(catalogueWithJob({{"UserName", "nobody"}})).isNil());
  Dictionary withoutFolder = *catalogueWithJob({{"Program", "a"}}).dictionary();
  withoutFolder.remove("ProgramPath");
  EXPECT_TRUE(job(withoutFolder).isNil());
}

TEST(Catalogue, NilHasNoEntryAndNoJob) {
  const Value catalogue = catalogueWithJob({{"Program", "a"}});
  EXPECT_TRUE(ORBServiceManager::jobInfoWithLabel(std::nullopt, catalogue).isNil());
  EXPECT_TRUE(ORBServiceManager::serviceEntryWithLabel(std::nullopt, catalogue).isNil());
  EXPECT_TRUE(ORBServiceManager::featureEntryWithFeatureName(std::nullopt, catalogue).isNil());
  EXPECT_TRUE(job(Value()).isNil());
  EXPECT_TRUE(ORBServiceManager::primaryServiceInfo(Value()).isNil());
}

TEST(Catalogue, AValueOfTheWrongTypeCountsAsAbsent) {
  EXPECT_TRUE(job(catalogueWithJob({{"Program", 1}})).isNil());
  EXPECT_TRUE(job(catalogueWithEntry({{"JobSpec", "agent"}})).isNil());
  EXPECT_TRUE(job(Dictionary{{"ProgramPath", "/opt"}, {"Services", Array{}}}).isNil());
  EXPECT_TRUE(
      job(Dictionary{{"ProgramPath", "/opt"}, {"Services", Dictionary{{kAgent, 1}}}}).isNil());
  Dictionary catalogue = *catalogueWithJob({{"Program", "a"}}).dictionary();
  catalogue.set("Primary", 5);
  EXPECT_TRUE(ORBServiceManager::primaryServiceInfo(catalogue).isNil());
  catalogue.set("ProgramPath", Array{"/opt"});
  EXPECT_TRUE(job(catalogue).isNil());
}

TEST(Catalogue, EntriesAreFoundByTheirNames) {
  const Value catalogue =
      Dictionary{{"Services", Dictionary{{kAgent, Dictionary{{"Notification", "up"}}}}},
                 {"Features", Dictionary{{"scan", Dictionary{{"Config", Array{}}}}}}};
  EXPECT_EQ(ORBServiceManager::serviceEntryWithLabel(kAgent, catalogue)["Notification"],
            Value("up"));
  EXPECT_EQ(ORBServiceManager::featureEntryWithFeatureName("scan", catalogue),
            Value(Dictionary{{"Config", Array{}}}));
  EXPECT_TRUE(ORBServiceManager::serviceEntryWithLabel("scan", catalogue).isNil());
  EXPECT_TRUE(ORBServiceManager::featureEntryWithFeatureName(kAgent, catalogue).isNil());
}

TEST(Catalogue, EmptyOrMalformedFeaturesMakeAFeatureService) {
  const auto type = [](const Value& catalogue) {
    return ORBServiceManager::serviceTypeForLabel(kAgent, catalogue);
  };
  EXPECT_EQ(type(catalogueWithEntry({{"Features", Array{"scan"}}})), "FeatureService");
  EXPECT_EQ(type(catalogueWithEntry({{"Features", Array{}}})), "FeatureService");
  EXPECT_EQ(type(catalogueWithEntry({{"Features", "no array"}})), "FeatureService");
  EXPECT_EQ(type(catalogueWithEntry({})), "CoreService");
  EXPECT_EQ(type(Value()), "CoreService");
}

TEST(Catalogue, ThePrimaryServiceIsTheOneUnderPrimary) {
  const Value catalogue = catalogueWithJob({{"Program", "a"}});
  EXPECT_EQ(ORBServiceManager::primaryServiceInfo(catalogue), job(catalogue));
  Dictionary unknown = *catalogue.dictionary();
  unknown.set("Primary", "com.example.unknown");
  EXPECT_TRUE(ORBServiceManager::primaryServiceInfo(unknown).isNil());
}

}  // namespace
