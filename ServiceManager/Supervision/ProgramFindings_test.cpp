#include "ServiceManager/Supervision/ProgramFindings.h"

#include <chrono>

#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class ProgramFindingsTest : public SupervisionFixture {
 protected:
  ProgramFinding check() {
    enforcement_.enforceRunningForService(kAgent, nullptr);
    loop_.runReady();
    const auto table = enforcement_.programFindings();
    const auto found = table->find(kAgent);
    EXPECT_NE(found, table->end());
    return found == table->end() ? ProgramFinding() : found->second;
  }
};

TEST_F(ProgramFindingsTest, AServiceThatNobodyNeedsHasNone) {
  check();
  EXPECT_FALSE(enforcement_.programFindings()->contains(kHelper));
}

TEST_F(ProgramFindingsTest, EachCheckReplacesTheLastOne) {
  ProgramFinding found = check();
  EXPECT_EQ(found.state, ProgramState::kSound);
  EXPECT_EQ(found.fault, "");
  EXPECT_EQ(found.identifier, "agent");
  EXPECT_EQ(found.protection, CodeProtection::kRecheck);
  EXPECT_EQ(found.at, loop_.now());
  const auto before = enforcement_.programFindings();

  loop_.advanceBy(1min);
  damageProgram("agent");
  found = check();
  EXPECT_EQ(found.state, ProgramState::kDamaged);
  EXPECT_EQ(found.fault, "changed");
  EXPECT_FALSE(found.identifier);
  EXPECT_FALSE(found.protection);
  EXPECT_EQ(found.at, loop_.now());
  EXPECT_EQ(before->at(kAgent).state, ProgramState::kSound);

  signatures_.setShortage(true);
  found = check();
  EXPECT_EQ(found.state, ProgramState::kUnknown);
  EXPECT_NE(found.fault, "");

  files_.remove(pathOf("agent"));
  found = check();
  EXPECT_EQ(found.state, ProgramState::kMissing);
  EXPECT_EQ(found.fault, "");
}

}  // namespace
