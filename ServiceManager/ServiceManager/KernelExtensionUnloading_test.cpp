// Unloading on older releases, and what the operator is told.

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "ServiceManager/ServiceManager/KernelExtensions_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

// Releases before 10.7 unload by a program.

class OldReleaseTest : public KernelExtensionsFixture {
 protected:
  OldReleaseTest() {
    system_.setRelease("10.8.0", {10, 6, 8});
    extensions_.setLoaded(kNetwork);
    network_.version = integer(4);
    extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
    tasks_.setProgram("/root/sbin/kextunload", {});
  }
  std::vector<std::string> argumentsOf(const char* identifier) {
    load(identifier, "net");
    return tasks_.launches().empty() ? std::vector<std::string>()
                                     : tasks_.launches().back().arguments;
  }
};

TEST_F(OldReleaseTest, TheProgramUnloads) {
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_THAT(requests(), ElementsAre(kLoadNetwork));
  ASSERT_EQ(tasks_.launches().size(), 1u);
  EXPECT_EQ(tasks_.launches()[0].path, "/root/sbin/kextunload");
}

TEST_F(OldReleaseTest, AnExtensionIsNamedByItsIdentifier) {
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre("-b", kNetwork));
}

TEST_F(OldReleaseTest, AnIdentifierThatIsAFileIsItself) {
  files_.addFile(kNetwork);
  files_.addFile(std::string("/root/System/Library/Extensions/") + kNetwork);
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(kNetwork));
}

// The daemon's own bundle lies on a real disk: a resource is asked of the file system.
class OldReleaseWithResourceTest : public OldReleaseTest {
 protected:
  OldReleaseWithResourceTest() {
    bundle_ = platform::Bundle(
        {folder_.path(), folder_.path("Info.plist"), folder_.path("daemon"), folder_.path()}, {});
    folder_.write(std::string(kNetwork) + ".kext/Contents/Info.plist", "");
    files_.addFile(std::string("/root/System/Library/Extensions/") + kNetwork);
  }
  std::string resource() const { return folder_.path(std::string(kNetwork) + ".kext"); }

  TemporaryFolder folder_;
};

TEST_F(OldReleaseWithResourceTest, OneOfTheDaemonsOwnIsNamedByItsPathBeforeOneOfTheSystems) {
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(resource()));
}

TEST_F(OldReleaseWithResourceTest, AnIdentifierThatIsAFileComesBeforeIt) {
  files_.addFile(kNetwork);
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(kNetwork));
}

TEST_F(OldReleaseWithResourceTest, AnotherKindOfResourceIsNone) {
  std::filesystem::rename(resource(), folder_.path(kNetwork));
  EXPECT_THAT(argumentsOf(kNetwork),
              ElementsAre(std::string("/root/System/Library/Extensions/") + kNetwork));
}

TEST_F(OldReleaseWithResourceTest, FromRelease11OnItIsNotLookedAt) {
  for (const char* release : {"11.0.0", "12.0.0", "15.0.0"}) {
    system_.setRelease(release, {10, 7, 0});
    network_.version = integer(4);
    EXPECT_TRUE(load(kNetwork, "net"));
    EXPECT_THAT(tasks_.launches(), IsEmpty()) << release;
  }
}

TEST_F(OldReleaseTest, OneOfTheSystemsIsNamedByItsPath) {
  const std::string path = std::string("/root/System/Library/Extensions/") + kNetwork;
  files_.addFile(path);
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(path));
}

TEST_F(OldReleaseTest, AProgramThatFailsIsTriedForASecond) {
  for (const int status : {1, 2, 255}) {
    network_.version = integer(4);
    tasks_.setProgram("/root/sbin/kextunload", {{}, {}, status});
    EXPECT_EQ(timeOf([&] { EXPECT_FALSE(load(kNetwork, "net")); }), 1200ms);
    EXPECT_EQ(countInLog("Unable to unload kext 'com.vantor.nke.wfk'."), 1u);
    takeLog();
  }
  EXPECT_EQ(tasks_.launches().size(), 21u);
}

TEST_F(OldReleaseTest, AProgramThatIsNotThereIsAFailureToo) {
  tasks_.setProgram("/root/sbin/kextunload",
                    {{}, {}, 0, NSException{kNSInvalidArgumentException, "no", {}}});
  EXPECT_FALSE(load(kNetwork, "net"));
}

TEST_F(OldReleaseTest, WithoutAnIdentifierNothingIsRun) {
  EXPECT_FALSE(manager().loadKextWithIdentifier(std::nullopt, "net", {}));
  EXPECT_THAT(tasks_.launches(), IsEmpty());
  EXPECT_EQ(countInLog("Unable to unload kext '(null)'."), 1u);
}

TEST_F(OldReleaseTest, FromRelease11OnThePlatformUnloads) {
  system_.setRelease("11.0.0", {10, 7, 0});
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_THAT(tasks_.launches(), IsEmpty());
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
}

// For the operator.

class KernelExtensionFactsTest : public KernelExtensionsFixture {};

TEST_F(KernelExtensionFactsTest, TheOperatorIsToldOfEachExtension) {
  EXPECT_TRUE(manager().startAssociatedSystemExtensions(kHelper));
  takeLog();
  const Dictionary facts = manager().report().extensions();
  EXPECT_EQ(facts["net"], Value(Dictionary{{"Identifier", kNetwork},
                                           {"Path", "/Library/Extensions/com.vantor.nke.wfk.kext"},
                                           {"IsLoaded", true},
                                           {"IsConnected", true},
                                           {"IsAnswering", true},
                                           {"IsConfigured", true},
                                           {"Services", Array{kAgent, kHelper}}}));
  EXPECT_EQ(facts["other"]["IsLoaded"], Value(false));
  EXPECT_EQ(facts["other"]["IsConnected"], Value(false));
  EXPECT_EQ(facts["other"]["IsConfigured"], Value(false));
  EXPECT_EQ(facts["other"]["Services"], Value(Array{kAgent}));
  EXPECT_THAT(takeLog(), IsEmpty());
  EXPECT_EQ(controls_.clients(kNetwork), 0);
}

TEST_F(KernelExtensionFactsTest, TheOperatorIsToldOfOneThatStandsStillAndItCostsASecond) {
  EXPECT_TRUE(manager().startAssociatedSystemExtensions(kHelper));
  controls_.setHanging(kNetwork, true);
  Dictionary facts;
  EXPECT_EQ(timeOf([&] { facts = manager().report().extensions(); }), 1s);
  EXPECT_EQ(facts["net"]["IsConnected"], Value(true));
  EXPECT_EQ(facts["net"]["IsAnswering"], Value(false));
  EXPECT_TRUE(facts["other"]["IsAnswering"].isNil());  // Nobody is connected to it.
}

TEST_F(KernelExtensionFactsTest, WhereTheJobHostIsSilentWhetherOneIsLoadedIsLeftOut) {
  EXPECT_TRUE(manager().startAssociatedSystemExtensions(kHelper));
  extensions_.setUnknown(kNetwork, true);
  extensions_.setUnknown(kOther, true);
  Dictionary facts = manager().report().extensions();
  EXPECT_TRUE(facts["net"]["IsLoaded"].isNil());
  EXPECT_TRUE(facts["net"]["PID"].isNil());
  EXPECT_EQ(facts["net"]["IsConnected"], Value(true));
  EXPECT_TRUE(facts["other"]["IsLoaded"].isNil());
  EXPECT_EQ(facts["other"]["IsConnected"], Value(false));
  extensions_.setUnknown(kNetwork, false);
  extensions_.setUnknown(kOther, false);
  facts = manager().report().extensions();
  EXPECT_EQ(facts["net"]["IsLoaded"], Value(true));
  EXPECT_EQ(facts["other"]["IsLoaded"], Value(false));
}

TEST_F(KernelExtensionFactsTest, TheOperatorIsToldWhyOneWouldNotBeLoaded) {
  extensions_.setLoadFails(kOther, true);
  const Dictionary facts = manager().report().extensions();
  EXPECT_TRUE(facts["net"]["Fault"].isNil());
  EXPECT_EQ(facts["other"]["Fault"], Value("com.example.nke.other: unsigned"));
  EXPECT_FALSE(facts["other"]["Path"].isNil());
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(KernelExtensionFactsTest, WhatTheCatalogueLacksTheOperatorIsNotTold) {
  Dictionary catalogue = catalogueOfKexts();
  catalogue.set("KernelExtensions", Dictionary{{"x", Dictionary()},
                                               {"y", Dictionary{{"Identifier", "com.example.y"}}}});
  manager().setServiceInfo(Value(catalogue));
  const Dictionary facts = manager().report().extensions();
  EXPECT_EQ(facts["x"], Value(Dictionary{{"IsConfigured", false}, {"Services", Array()}}));
  EXPECT_TRUE(facts["y"]["Path"].isNil());
  EXPECT_EQ(facts["y"]["Fault"], Value("com.example.y: no such extension"));
  manager().setServiceInfo({});
  EXPECT_TRUE(manager().report().extensions().empty());
}

}  // namespace
