#include "ServiceManager/Supervision/ExtensionControl.h"

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/Supervision/KernelExtensions_fixture.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr char kConnected[] = "7 Connected to Generic Kext";
constexpr char kUnloadOther[] = "unload com.example.nke.other";

class ExtensionControlTest : public WithKernelExtensions<SupervisionFixture> {
 protected:
  bool load(const char* identifier, const char* name, Array options = {}) {
    return answerTo<bool>([&](ExtensionControl::Done done) {
      control_.loadKextWithIdentifier(std::string(identifier), name, options, std::move(done));
    });
  }
  bool start(const char* label) {
    return answerTo<bool>([&](ExtensionControl::Done done) {
      control_.startAssociatedSystemExtensions(label, std::move(done));
    });
  }
};

// The services that use an extension.

TEST_F(ExtensionControlTest, ServicesUseTheExtensionsThatTheyName) {
  EXPECT_THAT(catalogue_.daemonsUsingKext("net"), UnorderedElementsAre(kAgent, kHelper));
  EXPECT_THAT(catalogue_.daemonsUsingKext("other"), UnorderedElementsAre(kAgent));
  EXPECT_THAT(catalogue_.daemonsUsingKext(kNetwork), IsEmpty());
  catalogue_ = {};
  EXPECT_THAT(catalogue_.daemonsUsingKext("net"), IsEmpty());
}

// A service's extensions.

TEST_F(ExtensionControlTest, AServiceWithoutExtensionsNeedsNone) {
  EXPECT_TRUE(start(kPrimary));
  EXPECT_TRUE(start("com.example.unknown"));
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(ExtensionControlTest, AServicesExtensionsAreLoadedInOrder) {
  EXPECT_TRUE(start(kAgent));
  EXPECT_EQ(endedLoads_, 2);
  EXPECT_THAT(requests(), ElementsAre(kLoadNetwork, kLoadOther));
  EXPECT_THAT(control_.kextsLoaded(), ElementsAre("net", "other"));
  EXPECT_THAT(takeLog(), ElementsAre(kConnected, kConnected));
}

TEST_F(ExtensionControlTest, AKnownExtensionIsNotCheckedAgain) {
  EXPECT_TRUE(start(kHelper));
  const int before = controls_.searches(kNetwork);
  extensions_.crash(kNetwork);  // Behind the daemon's back.
  EXPECT_TRUE(start(kHelper));
  EXPECT_EQ(controls_.searches(kNetwork), before);
}

TEST_F(ExtensionControlTest, AFailedExtensionDoesNotStopTheNext) {
  extensions_.setLoadFails(kNetwork, true);
  EXPECT_FALSE(start(kAgent));
  EXPECT_THAT(control_.kextsLoaded(), ElementsAre("other"));
  EXPECT_TRUE(extensions_.isLoaded(kOther));
  EXPECT_THAT(takeLog(), Contains("6 Failed to load kext 'com.vantor.nke.wfk'"));
}

TEST_F(ExtensionControlTest, AnExtensionMissingInTheCatalogueFails) {
  use(catalogue({{kAgent, entry("agent", {{"KernelExtensions", Array{"net", 7, "unknown"}}})}}));
  EXPECT_FALSE(start(kAgent));
  EXPECT_THAT(control_.kextsLoaded(), IsEmpty());
  EXPECT_EQ(countInLog("Unable to unload kext '(null)'."), 2u);
  EXPECT_EQ(countInLog("Failed to load kext '(null)'"), 2u);
}

// The states.

TEST_F(ExtensionControlTest, ALoadedExtensionIsOnlyConfigured) {
  extensions_.setLoaded(kOther);
  EXPECT_TRUE(load(kOther, "other"));
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_THAT(takeLog(), ElementsAre(kConnected));
}

TEST_F(ExtensionControlTest, NetworkExtensionVersion5IsConfiguredAtOnce) {
  extensions_.setLoaded(kNetwork);
  EXPECT_TRUE(load(kNetwork, "net", {"secure"}));
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_THAT(network_.options, ElementsAre(Pair(5u, *secret_.data())));
}

TEST_F(ExtensionControlTest, NetworkExtensionVersion4IsReloaded) {
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
  EXPECT_TRUE(load(kNetwork, "net", {"secure"}));
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
  EXPECT_THAT(network_.options, ElementsAre(Pair(5u, *secret_.data())));
  EXPECT_THAT(takeLog(), Contains(kConnected).Times(2));
}

TEST_F(ExtensionControlTest, OnlyACompleteVersionAbove4IsRecentEnough) {
  const auto isUnloaded = [this](Data version) {
    extensions_.setLoaded(kNetwork);
    network_.version = std::move(version);
    extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
    const std::size_t before = requests().size();
    EXPECT_TRUE(load(kNetwork, "net"));
    return requests().size() > before;
  };
  EXPECT_FALSE(isUnloaded(integer(5)));
  EXPECT_FALSE(isUnloaded(integer(6)));
  EXPECT_FALSE(isUnloaded(integer(0x7fffffff)));
  EXPECT_TRUE(isUnloaded(integer(4)));
  EXPECT_TRUE(isUnloaded(integer(0)));
  EXPECT_TRUE(isUnloaded(integer(-1)));
  EXPECT_TRUE(isUnloaded({}));
  EXPECT_TRUE(isUnloaded({5, 0, 0}));                  // A short answer.
  EXPECT_FALSE(isUnloaded({5, 0, 0, 0, 9, 9, 9, 9}));  // A long one.
  EXPECT_TRUE(isUnloaded({4, 0, 0, 0, 9, 9, 9, 9}));
  EXPECT_TRUE(isUnloaded(Data(kMaxControlOptionBytes + 1, 9)));
}

TEST_F(ExtensionControlTest, AnUnreadableVersionCausesAReload) {
  extensions_.setLoaded(kNetwork);
  network_.refusesToAnswer = true;
  extensions_.setOnLoad(kNetwork, [this] { network_.refusesToAnswer = false; });
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
}

TEST_F(ExtensionControlTest, AHungExtensionCostsASecondAndIsReloaded) {
  extensions_.setLoaded(kNetwork);
  controls_.setHanging(kNetwork, true);
  extensions_.setOnLoad(kNetwork, [this] { controls_.setHanging(kNetwork, false); });
  bool isLoaded = false;
  const Duration time = timeOf([&] { isLoaded = load(kNetwork, "net"); });
  EXPECT_TRUE(isLoaded);
  EXPECT_LE(time, 2s);  // One for its version, one for the check before unloading.
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
}

TEST_F(ExtensionControlTest, AnAlwaysHungExtensionFailsWhenLoadingFails) {
  constexpr int kLoads = 3;
  extensions_.setLoaded(kNetwork);
  controls_.setHanging(kNetwork, true);
  int loads = 0;
  extensions_.setOnLoad(kNetwork, [&] {
    if (++loads > kLoads) extensions_.setLoadFails(kNetwork, true);
  });
  const Duration time = timeOf([&] { EXPECT_FALSE(load(kNetwork, "net", {"secure"})); });
  EXPECT_EQ(loads, kLoads + 1);
  EXPECT_EQ(time, (kLoads + 1) *
                      2s);  // Each time one for its version, one for the check before unloading.
  EXPECT_THAT(network_.options, IsEmpty());
}

TEST_F(ExtensionControlTest, AnExtensionThatHangsBeforeTheSecretIsReloaded) {
  extensions_.setLoaded(kNetwork);
  network_.onQuestion = [this] { controls_.setHanging(kNetwork, true); };
  extensions_.setOnLoad(kNetwork, [this] {
    controls_.setHanging(kNetwork, false);
    network_.onQuestion = nullptr;
  });
  EXPECT_TRUE(load(kNetwork, "net", {"secure"}));
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
  EXPECT_THAT(network_.options, ElementsAre(Pair(5u, *secret_.data())));
}

// The daemon asks it nothing.
TEST_F(ExtensionControlTest, AnotherHungExtensionIsConfiguredAtOnce) {
  extensions_.setLoaded(kOther);
  controls_.setHanging(kOther, true);
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(load(kOther, "other", {"secure"})); }), 0s);
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(ExtensionControlTest, AnExtensionInUseIsNotUnloadedAndFails) {
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  auto client = connectToControl(controls_, kNetwork);
  ASSERT_TRUE(client);
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(load(kNetwork, "net")); }), 1200ms);
  EXPECT_TRUE(extensions_.isLoaded(kNetwork));
  EXPECT_EQ(countInLog("Unable to unload kext 'com.vantor.nke.wfk'."), 1u);
}

TEST_F(ExtensionControlTest, AnExtensionThatRefusesTheSecretIsReloaded) {
  extensions_.setLoaded(kNetwork);
  network_.refusesSecrets = true;
  extensions_.setOnLoad(kNetwork, [this] { network_.refusesSecrets = false; });
  EXPECT_TRUE(load(kNetwork, "net", {"secure"}));
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
  EXPECT_THAT(network_.options, ElementsAre(Pair(5u, *secret_.data())));
}

TEST_F(ExtensionControlTest, AnExtensionThatEndsBeforeTheSecretIsReloaded) {
  extensions_.setLoaded(kNetwork);
  network_.onQuestion = [this] {
    network_.onQuestion = nullptr;
    extensions_.crash(kNetwork);
  };
  EXPECT_TRUE(load(kNetwork, "net", {"secure"}));
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
}

TEST_F(ExtensionControlTest, AnUnloadedExtensionIsLoaded) {
  EXPECT_TRUE(load(kOther, "other"));
  EXPECT_THAT(requests(), ElementsAre(kLoadOther));
}

TEST_F(ExtensionControlTest, AnExtensionThatCannotBeLoadedIsReloaded) {
  extensions_.setLoaded(kOther);
  extensions_.crash(kOther);  // The loader waits for its control in vain.
  EXPECT_TRUE(load(kOther, "other"));
  EXPECT_THAT(requests(), ElementsAre(kLoadOther, kUnloadOther, kLoadOther));
}

TEST_F(ExtensionControlTest, AnExtensionThatCannotBeReloadedFails) {
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  extensions_.setOnLoad(kNetwork, [this] { extensions_.setLoadFails(kNetwork, true); });
  EXPECT_FALSE(load(kNetwork, "net"));
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
  EXPECT_THAT(takeLog(), Not(Contains(testing::HasSubstr("Unable to unload"))));
}

TEST_F(ExtensionControlTest, AFailureIsRememberedUntilAStartSucceeds) {
  extensions_.setLoadFails(kNetwork, true);
  EXPECT_FALSE(load(kNetwork, "net"));
  ASSERT_TRUE(control_.failures().contains("net"));
  EXPECT_EQ(control_.failures().at("net").step, kKextIsNotLoaded);
  EXPECT_EQ(control_.failures().at("net").time, loop_.now());
  extensions_.setLoadFails(kNetwork, false);
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_TRUE(control_.failures().empty());
}

TEST_F(ExtensionControlTest, AnOldExtensionInUseIsTooOld) {
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  auto client = connectToControl(controls_, kNetwork);
  EXPECT_FALSE(load(kNetwork, "net"));
  EXPECT_EQ(control_.failures().at("net").step, kKextIsRejected);
}

// The time is checked after each try, and is over more than a second after the first.
TEST_F(ExtensionControlTest, UnloadingForMoreThanASecondFails) {
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  extensions_.setBusy(kNetwork, 100);
  bool isLoaded = true;
  const Duration time = timeOf([&] { isLoaded = load(kNetwork, "net"); });
  EXPECT_FALSE(isLoaded);
  EXPECT_EQ(time, 1200ms);
  EXPECT_THAT(requests(), testing::Each(kUnloadNetwork));
  EXPECT_EQ(requests().size(), 7u);  // At 0, 0.2, ... 1.0, and 1.2.
  EXPECT_THAT(takeLog(), Contains("3 Unable to unload kext 'com.vantor.nke.wfk'."));
}

TEST_F(ExtensionControlTest, UnloadingAtTheLastTrySucceeds) {
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
  extensions_.setBusy(kNetwork, 6);
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_EQ(requests().size(), 8u);
}

TEST_F(ExtensionControlTest, AllUnloadingsShareOneDeadline) {
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  // Unloaded at once the first time; the second time too late for any further try.
  extensions_.setOnLoad(kNetwork, [this] {
    loop_.sleepFor(2s);
    extensions_.setBusy(kNetwork, 100);
  });
  EXPECT_FALSE(load(kNetwork, "net"));
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork, kUnloadNetwork));
}

TEST_F(ExtensionControlTest, LoadingWithoutAControlRepeatsWithoutLimit) {
  constexpr int kRounds = 10'000;
  int rounds = 0;
  extensions_.setWithoutControl(kOther, true);
  extensions_.setOnLoad(kOther, [&] {
    if (++rounds == kRounds) extensions_.setWithoutControl(kOther, false);
  });
  EXPECT_TRUE(load(kOther, "other"));
  EXPECT_EQ(rounds, kRounds);
}

TEST_F(ExtensionControlTest, LoadingWithoutAControlEndsWhenALoadFails) {
  int rounds = 0;
  extensions_.setWithoutControl(kOther, true);
  extensions_.setBusy(kOther, 100);
  extensions_.setOnLoad(kOther, [&] {
    if (++rounds == 50) extensions_.setLoadFails(kOther, true);
  });
  EXPECT_FALSE(load(kOther, "other"));
  EXPECT_EQ(rounds, 50);
  EXPECT_THAT(requests(), Contains(kUnloadOther));
}

TEST_F(ExtensionControlTest, TheControlConnectionIsNotKept) {
  EXPECT_TRUE(load(kNetwork, "net", {"secure"}));
  EXPECT_EQ(controls_.clients(kNetwork), 0);
  network_.version = integer(4);
  extensions_.setBusy(kNetwork, 100);
  EXPECT_FALSE(load(kNetwork, "net"));
  EXPECT_EQ(controls_.clients(kNetwork), 0);
}

// The secret.

TEST_F(ExtensionControlTest, TheSecretNeedsTheSecureOption) {
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_TRUE(load(kNetwork, "net", {"Secure", "insecure", "", 1, Array{"secure"}}));
  EXPECT_THAT(network_.options, IsEmpty());
}

TEST_F(ExtensionControlTest, OnlyTheNetworkExtensionGetsTheSecret) {
  EXPECT_TRUE(load(kOther, "net", {"secure"}));
  EXPECT_THAT(other_.options, IsEmpty());
  Extension similar;
  install("com.vantor.nke.wfk2", similar);
  EXPECT_TRUE(load("com.vantor.nke.wfk2", "net", {"secure"}));
  install("com.vantor.nke.WFK", similar);
  EXPECT_TRUE(load("com.vantor.nke.WFK", "net", {"secure"}));
  EXPECT_THAT(similar.options, IsEmpty());
}

TEST_F(ExtensionControlTest, TheSecretIsSentForEachSecureOption) {
  EXPECT_TRUE(load(kNetwork, "net", {"secure", "other", "secure"}));
  EXPECT_THAT(network_.options, ElementsAre(Pair(5u, *secret_.data()), Pair(5u, *secret_.data())));
}

TEST_F(ExtensionControlTest, TheSecretIsNotLogged) {
  network_.refusesSecrets = true;
  extensions_.setOnLoad(kNetwork, [this] { network_.refusesSecrets = false; });
  EXPECT_TRUE(load(kNetwork, "net", {"secure"}));
  for (const std::string& line : takeLog()) {
    EXPECT_THAT(line, Not(testing::HasSubstr("01020304")));
    EXPECT_THAT(
        line, Not(testing::HasSubstr(std::string(secret_.data()->begin(), secret_.data()->end()))));
  }
}

}  // namespace
