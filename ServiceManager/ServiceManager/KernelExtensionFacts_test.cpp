// The operator's facts of the extensions.

#include <chrono>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"
#include "ServiceManager/Supervision/KernelExtensions_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::IsEmpty;

class KernelExtensionFactsTest : public WithKernelExtensions<ServiceManagerFixture> {};

TEST_F(KernelExtensionFactsTest, EachExtensionIsReported) {
  EXPECT_TRUE(startExtensions(kHelper));
  takeLog();
  const Dictionary facts = extensionFacts();
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

// The daemon forgets it for the next start of a service that uses it.
TEST_F(KernelExtensionFactsTest, AStopOfAServiceLeavesItsExtensionsConfigured) {
  EXPECT_TRUE(startExtensions(kHelper));
  stop(kHelper);
  ASSERT_THAT(manager().kextsLoaded(), IsEmpty());
  EXPECT_EQ(extensionFacts()["net"]["IsConfigured"], Value(true));
  controls_.setProcess(kNetwork, 2);
  EXPECT_EQ(extensionFacts()["net"]["IsConfigured"], Value(false));
  EXPECT_TRUE(startExtensions(kHelper));
  EXPECT_EQ(extensionFacts()["net"]["IsConfigured"], Value(true));
  EXPECT_TRUE(extensions_.KextManagerUnloadKextWithIdentifier(kNetwork));
  EXPECT_EQ(extensionFacts()["net"]["IsConfigured"], Value(false));
}

TEST_F(KernelExtensionFactsTest, AHungExtensionIsReportedAfterASecond) {
  EXPECT_TRUE(startExtensions(kHelper));
  controls_.setHanging(kNetwork, true);
  Dictionary facts;
  EXPECT_EQ(timeOf([&] { facts = extensionFacts(); }), 1s);
  EXPECT_EQ(facts["net"]["IsConnected"], Value(true));
  EXPECT_EQ(facts["net"]["IsAnswering"], Value(false));
  EXPECT_TRUE(facts["other"]["IsAnswering"].isNil());  // Nobody is connected to it.
}

TEST_F(KernelExtensionFactsTest, WithoutTheJobHostIsLoadedIsAbsent) {
  EXPECT_TRUE(startExtensions(kHelper));
  extensions_.setUnknown(kNetwork, true);
  extensions_.setUnknown(kOther, true);
  Dictionary facts = extensionFacts();
  EXPECT_TRUE(facts["net"]["IsLoaded"].isNil());
  EXPECT_TRUE(facts["net"]["PID"].isNil());
  EXPECT_EQ(facts["net"]["IsConnected"], Value(true));
  EXPECT_TRUE(facts["other"]["IsLoaded"].isNil());
  EXPECT_EQ(facts["other"]["IsConnected"], Value(false));
  extensions_.setUnknown(kNetwork, false);
  extensions_.setUnknown(kOther, false);
  facts = extensionFacts();
  EXPECT_EQ(facts["net"]["IsLoaded"], Value(true));
  EXPECT_EQ(facts["other"]["IsLoaded"], Value(false));
}

TEST_F(KernelExtensionFactsTest, AnExtensionsFaultIsReported) {
  extensions_.setLoadFails(kOther, true);
  const Dictionary facts = extensionFacts();
  EXPECT_TRUE(facts["net"]["Fault"].isNil());
  EXPECT_EQ(facts["other"]["Fault"], Value("com.example.nke.other: unsigned"));
  EXPECT_FALSE(facts["other"]["Path"].isNil());
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(KernelExtensionFactsTest, TheStepThatFailedLastIsReported) {
  extensions_.setLoadFails(kNetwork, true);
  EXPECT_FALSE(startExtensions(kHelper));
  loop_.advanceBy(3s);
  const Dictionary facts = extensionFacts();
  EXPECT_EQ(facts["net"][kFactKextFailedStep], Value("isNotLoaded"));
  EXPECT_EQ(facts["net"][kFactKextFailedAgo], Value(3.0));
  EXPECT_TRUE(facts["other"][kFactKextFailedStep].isNil());
}

TEST_F(KernelExtensionFactsTest, FactsThatTheCatalogueLacksAreAbsent) {
  Dictionary all = catalogueOfKexts();
  all.set("KernelExtensions",
          Dictionary{{"x", Dictionary()}, {"y", Dictionary{{"Identifier", "com.example.y"}}}});
  use(all);
  const Dictionary facts = extensionFacts();
  EXPECT_EQ(facts["x"], Value(Dictionary{{"IsConfigured", false}, {"Services", Array()}}));
  EXPECT_TRUE(facts["y"]["Path"].isNil());
  EXPECT_EQ(facts["y"]["Fault"], Value("com.example.y: no such extension"));
  use(catalogue());
  EXPECT_TRUE(extensionFacts().empty());
}

}  // namespace
