#include "ServiceManager/Supervision/ServiceProgram.h"

#include <gtest/gtest.h>

#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Files/FakeFileReader.h"

namespace {

using namespace platform;
constexpr auto kProgramKind = SecStaticCode::Kind::kProgram;

class ServiceProgramTest : public testing::Test {
 protected:
  ProgramCheck check() { return checkProgram("/opt/agent", files_, validator_); }

  FakeFileReader files_;
  FakeCodeSignatures signatures_;
  ORBSigningValidator validator_{signatures_};
};

TEST_F(ServiceProgramTest, AnAbsentProgramIsMissing) {
  signatures_.addValid("/opt/agent", kProgramKind, "agent");
  EXPECT_EQ(check().state, ProgramState::kMissing);
}

TEST_F(ServiceProgramTest, AProgramThatIsSignedIsSound) {
  files_.addFile("/opt/agent");
  signatures_.addValid("/opt/agent", kProgramKind, "agent");
  EXPECT_EQ(check().state, ProgramState::kSound);
  EXPECT_EQ(check().verdict.identifier, "agent");
}

TEST_F(ServiceProgramTest, AProgramThatWasChangedIsDamaged) {
  files_.addFile("/opt/agent");
  signatures_.addRefused("/opt/agent", kProgramKind, {errSecCSSignatureFailed, "changed"});
  EXPECT_EQ(check().state, ProgramState::kDamaged);
  EXPECT_EQ(check().verdict.reason, "changed");
}

TEST_F(ServiceProgramTest, AProgramThatCannotBeCheckedIsNotDamaged) {
  files_.addFile("/opt/agent");
  signatures_.addValid("/opt/agent", kProgramKind, "agent");
  signatures_.setShortage(true);
  EXPECT_EQ(check().state, ProgramState::kUnknown);
}

}  // namespace
