#include "Shared/ORBSigningValidator.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Logger/Logger.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Logging/FakeLogSink.h"

namespace {

using namespace platform;
using testing::EndsWith;
using testing::SizeIs;

constexpr auto kProgram = SecStaticCode::Kind::kProgram;
constexpr auto kBundle = SecStaticCode::Kind::kBundle;

class ORBSigningValidatorTest : public testing::Test {
 protected:
  void expectLine(AslLevel level, const std::string& text) {
    ASSERT_THAT(sink_.messages(), SizeIs(1));
    EXPECT_EQ(sink_.messages()[0].level, level);
    EXPECT_THAT(sink_.messages()[0].text, EndsWith("] " + text));
    EXPECT_EQ(sink_.count("[ORBSigningValidator.cpp:"), 1u);
  }

  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  LoggerBinding logger_{log_};
  FakeCodeSignatures signatures_;
  ORBSigningValidator validator_{signatures_};
};

TEST_F(ORBSigningValidatorTest, AnIntactProgramsIdentifierIsReturned) {
  signatures_.addValid("/bin/p", kProgram, "com.vantor.p");
  const auto verdict = validator_.validateProgram("/bin/p");
  EXPECT_TRUE(verdict.isIntact());
  EXPECT_EQ(verdict.status, errSecSuccess);
  EXPECT_EQ(verdict.reason, "");
  EXPECT_EQ(verdict.identifier, "com.vantor.p");
  expectLine(ASL_LEVEL_DEBUG, "The program '/bin/p' is intact, identifier: com.vantor.p");
}

TEST_F(ORBSigningValidatorTest, AnIntactBundleMayHaveNoIdentifier) {
  signatures_.addValid("/X.bundle", kBundle, std::nullopt);
  const auto verdict = validator_.validateBundle("/X.bundle");
  EXPECT_TRUE(verdict.isIntact());
  EXPECT_FALSE(verdict.identifier);
  expectLine(ASL_LEVEL_DEBUG, "The bundle '/X.bundle' is intact, identifier: (null)");
}

TEST_F(ORBSigningValidatorTest, ARejectionHasAStatusAndReasonAndIsLogged) {
  signatures_.addRefused("/X.bundle", kBundle, {errSecCSBadResource, "/X.bundle/a: was added"});
  const auto verdict = validator_.validateBundle("/X.bundle");
  EXPECT_FALSE(verdict.isIntact());
  EXPECT_EQ(verdict.status, errSecCSBadResource);
  EXPECT_EQ(verdict.reason, "/X.bundle/a: was added");
  expectLine(ASL_LEVEL_ERR,
             "The bundle '/X.bundle' is not intact (status: -67054): /X.bundle/a: was added");
}

TEST_F(ORBSigningValidatorTest, AnUnsignedProgramIsNotADamagedOne) {
  signatures_.addRefused("/bin/p", kProgram, {errSecCSUnsigned, "/bin/p: carries no signature"});
  const auto verdict = validator_.validateProgram("/bin/p");
  EXPECT_EQ(verdict.verdict, CodeVerdict::kNotSigned);
  expectLine(ASL_LEVEL_ERR,
             "The program '/bin/p' is not intact (status: -67062): /bin/p: carries no signature");
}

TEST_F(ORBSigningValidatorTest, ACheckThatCantBeMadeIsNoDamage) {
  signatures_.addValid("/bin/p", kProgram, "com.vantor.p");
  signatures_.setShortage(true);
  const auto verdict = validator_.validateProgram("/bin/p");
  EXPECT_TRUE(verdict.isUnknown());
  EXPECT_FALSE(verdict.isIntact());
  EXPECT_EQ(verdict.status, kErrnoStatusBase + EMFILE);
  expectLine(ASL_LEVEL_WARNING,
             "The program '/bin/p' can't be checked now (status: 100024): /bin/p: Too many open "
             "files");
}

TEST_F(ORBSigningValidatorTest, AMissingFileIsNotIntact) {
  const auto verdict = validator_.validateProgram("/none");
  EXPECT_FALSE(verdict.isIntact());
  EXPECT_EQ(verdict.status, kErrnoStatusBase + ENOENT);
  EXPECT_EQ(sink_.messagesAtLevel(ASL_LEVEL_ERR).size(), 1u);
}

TEST_F(ORBSigningValidatorTest, AProgramIsNoBundleNorTheOtherWayAround) {
  signatures_.addValid("/X.bundle", kBundle, "x");
  signatures_.addValid("/bin/p", kProgram, "p");
  EXPECT_EQ(validator_.validateProgram("/X.bundle").reason,
            "/X.bundle: is a folder, not a program");
  EXPECT_EQ(validator_.validateBundle("/bin/p").reason, "/bin/p: is a file, not a bundle");
  EXPECT_EQ(signatures_.checks("/X.bundle") + signatures_.checks("/bin/p"), 0);
}

// Other library code on the thread opens the log under its own name.
TEST_F(ORBSigningValidatorTest, ItLeavesNoLogClientBehind) {
  signatures_.addValid("/bin/p", kProgram, "p");
  ASSERT_TRUE(validator_.validateProgram("/bin/p").isIntact());
  EXPECT_EQ(sink_.messages().back().ident, "ORBSigningValidator");
  vantorlogger_open("another", "com.example.facility");
  vantorlogger_line(ASL_LEVEL_DEBUG, "a line");
  EXPECT_EQ(sink_.messages().back().ident, "another");
  ASSERT_TRUE(validator_.validateProgram("/bin/p").isIntact());
  vantorlogger_line(ASL_LEVEL_DEBUG, "a line");
  EXPECT_EQ(sink_.messages().back().ident, "another");
  vantorlogger_close();
}

TEST_F(ORBSigningValidatorTest, EachCallVerifiesAgain) {
  signatures_.addValid("/bin/p", kProgram, "p");
  EXPECT_TRUE(validator_.validateProgram("/bin/p").isIntact());
  signatures_.addRefused("/bin/p", kProgram, {errSecCSSignatureFailed, "/bin/p: changed"});
  EXPECT_FALSE(validator_.validateProgram("/bin/p").isIntact());
}

}  // namespace
