// The effects of extensions on the services that use them, and of services on the known extensions.

#include <chrono>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "ServiceManager/Supervision/KernelExtensions_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class KernelExtensionServicesTest : public WithKernelExtensions<ServiceManagerFixture> {
 protected:
  void run(const char* label) {
    manager().enforceRunningForService(label, nullptr);
    loop_.runReady();
  }
  bool load(const char* identifier, const char* name) {
    return answerTo<bool>([&](ExtensionControl::Done done) {
      manager().loadKextWithIdentifier(std::string(identifier), name, {}, std::move(done));
    });
  }
};

TEST_F(KernelExtensionServicesTest, UnloadingStopsServicesAndEvaluatesThemAgain) {
  run(kAgent);
  run(kHelper);
  run(kPrimary);
  ASSERT_TRUE(isRunning(kAgent) && isRunning(kHelper) && isRunning(kPrimary));
  network_.version = integer(4);
  extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
  bool haveStopped = false;
  extensions_.setOnUnload(kNetwork,
                          [&] { haveStopped = !isRunning(kAgent) && !isRunning(kHelper); });
  takeLog();
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_TRUE(haveStopped);  // before the extension was unloaded
  EXPECT_EQ(jobs_.starts(kPrimary), 1u);
  EXPECT_EQ(countInLog("Did enforce shutdown for service: com.example.agent"), 1u);
  EXPECT_EQ(countInLog("Did enforce shutdown for service: com.example.helper"), 1u);
  loop_.advanceBy(1s);  // The ends of their processes cause an evaluation, too.
  takeLog();
  loop_.advanceBy(4s - 1ns);
  EXPECT_EQ(countInLog("Evaluating service"), 0u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(countInLog("Evaluating service: com.example.agent"), 1u);
  EXPECT_EQ(countInLog("Evaluating service: com.example.helper"), 1u);
  EXPECT_EQ(countInLog("Evaluating service"), 2u);
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_TRUE(isRunning(kHelper));
}

TEST_F(KernelExtensionServicesTest, AServiceThatIsStoppedForAReloadHasNotCrashed) {
  keepsHealthRecord_ = true;
  useHealth();
  run(kHelper);
  manager().evaluateInformationForService(kHelper);
  stop(kAgent);  // Its extensions are forgotten.
  network_.version = integer(4);
  extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
  run(kHelper);
  loop_.advanceBy(10s);
  EXPECT_EQ(jobs_.starts(kHelper), 1u);
  EXPECT_GE(countInLog("com.example.helper with PID"), 1u);
  const Value helper = manager().healthInfo()->healthRecord()[kHealthServices][kHelper];
  EXPECT_EQ(helper[kHealthStatus], Value(kRunning));
  EXPECT_EQ(helper[kHealthCrashes].integer().value_or(0), 0);
}

TEST_F(KernelExtensionServicesTest, AFailedUnloadingEvaluatesItsServicesAgain) {
  run(kHelper);
  network_.version = integer(4);
  extensions_.setBusy(kNetwork, 7);
  EXPECT_FALSE(load(kNetwork, "net"));
  EXPECT_FALSE(isRunning(kHelper));
  network_.version = integer(5);
  loop_.advanceBy(5s);
  EXPECT_TRUE(isRunning(kHelper));
}

TEST_F(KernelExtensionServicesTest, TheServicesAreStoppedAtEveryTryToUnload) {
  useHealth();
  extensions_.setLoaded(kNetwork);
  network_.version = integer(4);
  extensions_.setBusy(kNetwork, 100);
  takeReports();
  EXPECT_FALSE(load(kNetwork, "net"));
  EXPECT_EQ(std::ranges::count(takeReports(), std::string("stop ") + kHelper), 7);
}

TEST_F(KernelExtensionServicesTest, LoadingAloneCausesNoEvaluation) {
  EXPECT_TRUE(load(kNetwork, "net"));
  takeLog();
  loop_.advanceBy(10s);
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(KernelExtensionServicesTest, TheLaterEvaluationLeavesStoppedServicesAlone) {
  run(kHelper);
  network_.version = integer(4);
  extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
  EXPECT_TRUE(load(kNetwork, "net"));
  manager().stopServices({kHelper});
  loop_.advanceBy(5s);
  EXPECT_FALSE(isRunning(kHelper));
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(KernelExtensionServicesTest, AServiceWhoseExtensionFailsIsNotSubmitted) {
  extensions_.setLoadFails(kOther, true);
  EXPECT_TRUE(answerTo<Value>([&](ServiceEnforcement::LaunchAnswer answer) {
                manager().launchService(kAgent, true, std::move(answer));
              }).isNil());
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_THAT(takeLog(), Contains("7 Failed to load kext for com.example.agent"));
}

TEST_F(KernelExtensionServicesTest, ARunningServiceWhoseExtensionFailsIsNotReady) {
  useHealth();
  run(kHelper);
  stop(kAgent);  // Its extensions are forgotten.
  network_.version = integer(4);
  extensions_.setLoadFails(kNetwork, true);
  takeReports();
  takeLog();
  run(kHelper);
  EXPECT_THAT(takeLog(), Contains("7 Failed to configure kext for already running service "
                                  "com.example.helper"));
  EXPECT_THAT(takeReports(), Contains("unready com.example.helper"));
}

// Two services share an extension. These are the extensions that are known to be loaded, step by
// step.
TEST_F(KernelExtensionServicesTest, ASharedExtensionIsForgottenAtTheFirstStop) {
  const auto start = [this](const char* label) {
    manager().startServices({label});
    loop_.runReady();
  };
  const auto stop = [this](const char* label) {
    manager().stopServices({label});  // Its end is seen in a later turn.
  };
  const auto known = [this] { return manager().kextsLoaded(); };
  using Names = std::set<std::string>;
  for (const bool agentFirst : {true, false}) {
    const char* const first = agentFirst ? kAgent : kHelper;
    const char* const second = agentFirst ? kHelper : kAgent;
    start(first);
    EXPECT_EQ(known(), (agentFirst ? Names{"net", "other"} : Names{"net"}));
    start(second);
    EXPECT_EQ(known(), (Names{"net", "other"}));
    stop(first);  // Its extension is forgotten although the other service still runs.
    EXPECT_EQ(known(), (agentFirst ? Names{} : Names{"other"}));
    start(first);
    EXPECT_EQ(known(), (Names{"net", "other"}));
    stop(second);
    EXPECT_EQ(known(), (agentFirst ? Names{"other"} : Names{}));
    stop(first);
    EXPECT_EQ(known(), Names{});
  }
  EXPECT_TRUE(extensions_.isLoaded(kNetwork));  // A stop unloads no extension.
  EXPECT_TRUE(extensions_.isLoaded(kOther));
}

// A start adds all of a service's extensions, and a stop removes them, even if other services use
// them.
TEST_F(KernelExtensionServicesTest, KnownExtensionsFollowStartsAndStopsInAnyOrder) {
  struct Step {
    const char* label;
    bool starts;
    std::set<std::string> kexts;
  };
  const std::vector<Step> kinds{{kAgent, true, {"net", "other"}},
                                {kAgent, false, {"net", "other"}},
                                {kHelper, true, {"net"}},
                                {kHelper, false, {"net"}}};
  constexpr int kSteps = 5;
  enterMode(kInstaller);  // No evaluation configures an extension.
  const auto orders = static_cast<std::size_t>(std::pow(kinds.size(), kSteps));
  for (std::size_t order = 0; order < orders; ++order) {
    manager().stopServices({kAgent, kHelper});
    ASSERT_THAT(manager().kextsLoaded(), IsEmpty());
    std::set<std::string> expected;
    std::string steps;
    std::size_t rest = order;
    for (int i = 0; i < kSteps; ++i, rest /= kinds.size()) {
      const Step& step = kinds[rest % kinds.size()];
      steps += std::string(step.starts ? " start " : " stop ") + step.label;
      if (step.starts) {
        manager().startServices({step.label});
        expected.insert(step.kexts.begin(), step.kexts.end());
      } else {
        manager().stopServices({step.label});
        for (const std::string& name : step.kexts) expected.erase(name);
      }
      loop_.runReady();
      ASSERT_EQ(manager().kextsLoaded(), expected) << steps;
      ASSERT_EQ(isRunning(step.label), step.starts) << steps;
    }
  }
  // Each was loaded once, and a stop unloads none.
  EXPECT_THAT(requests(), ElementsAre(kLoadNetwork, kLoadOther));
}

// The end of the stopped service's process causes an evaluation.
TEST_F(KernelExtensionServicesTest, ARunningServiceConfiguresTheSharedExtensionAgain) {
  manager().startServices({kAgent, kHelper});
  loop_.runReady();
  network_.options.clear();
  manager().stopServices({kAgent});
  EXPECT_THAT(manager().kextsLoaded(), IsEmpty());
  loop_.runReady();
  EXPECT_THAT(manager().kextsLoaded(), ElementsAre("net"));
  EXPECT_THAT(network_.options, ElementsAre(Pair(5u, *manager().secret().data())));
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_TRUE(isRunning(kHelper));
}

// The service that uses it is stopped, and all of its extensions are forgotten.
TEST_F(KernelExtensionServicesTest, UnloadingForgetsAllExtensionsOfStoppedServices) {
  EXPECT_TRUE(startExtensions(kHelper));
  extensions_.setLoaded(kOther);
  extensions_.crash(kOther);  // Then it has to be unloaded first.
  EXPECT_TRUE(startExtensions(kAgent));
  EXPECT_THAT(manager().kextsLoaded(), ElementsAre("other"));
}

TEST_F(KernelExtensionServicesTest, AnExtensionThatTheJobHostHasLostIsLoadedAtItsReturn) {
  startConfigurationServer();
  evaluate();
  ASSERT_TRUE(isRunning(kHelper));
  ASSERT_TRUE(extensions_.KextManagerUnloadKextWithIdentifier(kNetwork));
  evaluate();
  ASSERT_FALSE(extensions_.isLoaded(kNetwork));
  manager().handleJobHostReturn();
  loop_.runReady();
  EXPECT_TRUE(extensions_.isLoaded(kNetwork));
  EXPECT_TRUE(isRunning(kHelper));
}

TEST_F(KernelExtensionServicesTest, AStartMakesASecretAndForgetsExtensions) {
  EXPECT_TRUE(startExtensions(kHelper));
  ASSERT_THAT(manager().kextsLoaded(), ElementsAre("net"));
  launch();
  EXPECT_THAT(manager().kextsLoaded(), IsEmpty());
  EXPECT_EQ(manager().secret().data()->size(), 8u);
}

}  // namespace
