// The reasons for which a service does not run, in each combination. The tool names one of them,
// and the daemon starts the service when all that were named have been repaired, and not before.

#include <set>
#include <string>

#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;

class OperatorReasonOrderTest : public ServiceManagerFixture {
 protected:
  struct Faults {
    std::int64_t mode = kNormal;
    bool isStopped = false;
    bool isPrimaryStopped = false;
    bool isUnsupported = false;
    ProgramState program = ProgramState::kSound;
  };

  void begin(const Faults& faults) {
    faults_ = faults;
    manager_.reset();
    for (const char* label : {kPrimary, kHelper}) {
      jobs_.SMJobRemove(kSMDomainSystemLaunchd, label, nullptr, true);
      ASSERT_FALSE(isRunning(label));
    }
    system_.setRelease("14.0.0", {10, 10, 0});
    use(catalogue({{kPrimary, entry("configd")},
                   {kHelper, entry("helper", {{"MinimumOSVersion",
                                               faults.isUnsupported ? "10.11" : "10.10"}})}}));
    if (faults.program == ProgramState::kMissing) files_.remove(pathOf("helper"));
    if (faults.program == ProgramState::kDamaged) damageProgram("helper");
    enterMode(faults.mode);
    mark();
  }
  void mark() {
    manager().trackServiceForUserClientShutdownRequest(kHelper, faults_.isStopped);
    manager().trackServiceForUserClientShutdownRequest(kPrimary, faults_.isPrimaryStopped);
  }

  std::string reason() {
    const Value facts = serviceFacts(kHelper);
    const std::string* reason = facts[kFactReason].string();
    return reason ? *reason : "";
  }
  // Repairs the one thing that the reason names.
  void repair(const std::string& reason) {
    if (reason == kReasonStopped) faults_.isStopped = false;
    if (reason == kReasonPrimaryStopped) faults_.isPrimaryStopped = false;
    if (reason == kReasonInstaller || reason == kReasonWaiting) enterMode(kNormal);
    if (reason == kReasonUnsupported) system_.setRelease("15.0.0", {10, 11, 0});
    if (reason == kReasonNoProgram || reason == kReasonDamaged) addProgram("helper");
    mark();
  }

  // The reason tells what the last evaluation has found.
  std::string reasonAfterEvaluation() {
    evaluate();
    return reason();
  }

  void expectEachReasonOnce() {
    std::set<std::string> reasons;
    for (std::string why = reasonAfterEvaluation(); why != kReasonCore;
         why = reasonAfterEvaluation()) {
      ASSERT_TRUE(reasons.insert(why).second) << why << " was repaired";
      ASSERT_FALSE(isRunning(kHelper)) << why;
      repair(why);
    }
    EXPECT_TRUE(isRunning(kHelper));
  }

  Faults faults_;
};

TEST_F(OperatorReasonOrderTest, TheServiceStartsWhenEachReasonIsRepaired) {
  for (const std::int64_t mode : {kNormal, kInstaller, kWaiting}) {
    for (const ProgramState program :
         {ProgramState::kSound, ProgramState::kMissing, ProgramState::kDamaged}) {
      for (const unsigned more : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
        const Faults faults{mode, (more & 1) != 0, (more & 2) != 0, (more & 4) != 0, program};
        SCOPED_TRACE(testing::Message() << "mode " << mode << ", program "
                                        << static_cast<int>(program) << ", others " << more);
        ASSERT_NO_FATAL_FAILURE(begin(faults));
        expectEachReasonOnce();
        ASSERT_FALSE(HasFailure());
      }
    }
  }
}

}  // namespace
