// The daemon and its job host as an ordinary user, who owns the platform root.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonOrdinaryUser : public DaemonFixture {};

// Runs the current test alone as a user with no rights and no groups.
void runThisTestAsNobody() {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(test.test_suite_name()) + "." + test.name();
  ChildProgram nobody(
      {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
       std::filesystem::read_symlink("/proc/self/exe").string(), "--gtest_filter=" + name},
      {});
  std::string output;
  while (const auto line = nobody.nextLineIfAny()) output += *line + "\n";
  EXPECT_EQ(nobody.waitForExit(), ExitStatus{}) << nobody.errors();
  EXPECT_NE(output.find("[  PASSED  ] 1 test."), output.npos) << output;
}

TEST_F(DaemonOrdinaryUser, RunsTheProductBelowARootOfItsOwn) {
  if (::geteuid() == 0) return runThisTestAsNobody();
  start(2);
  const std::string owner = std::to_string(::geteuid());
  root_.awaitLog("real UID: " + owner + " | effective UID: " + owner);
  expectKilledServiceIsReported(DaemonRoot::kPrimary);
  expectKilledServiceIsReported(DaemonRoot::label(0));

  const Array stopped{DaemonRoot::label(1)};
  EXPECT_TRUE(client_->ask("stopServices:", {Value(stopped)}));
  EXPECT_EQ(client_->ask("pidForService:", {DaemonRoot::label(1)}), MessageResult(Value()));
  EXPECT_TRUE(client_->ask("startServices:", {Value(stopped)}));
  const auto process = client_->ask("pidForService:", {DaemonRoot::label(1)});
  ASSERT_TRUE(process);
  EXPECT_EQ(*process, Value(root_.processOf(DaemonRoot::label(1))));

  const auto before = pids();
  const std::size_t evaluated = evaluations();
  root_.killDaemon();
  root_.awaitStart();
  awaitEvaluation(evaluated);
  expectNoneLostNoneDoubled(before);
  EXPECT_TRUE(root_.startErrors().empty());
}

}  // namespace
}  // namespace platform
