// The daemon and its job host as an ordinary user, who owns the platform root.

#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonOrdinaryUser : public DaemonFixture {};

TEST_F(DaemonOrdinaryUser, RunsTheProductBelowARootOfItsOwn) {
  if (::geteuid() == 0) {
    return runTestAsNobody("DaemonOrdinaryUser.RunsTheProductBelowARootOfItsOwn");
  }
  start(2);
  const std::string owner = std::to_string(::geteuid());
  root_.awaitLog("real UID: " + owner + " | effective UID: " + owner);
  expectKilledServiceIsReported(DaemonRoot::kPrimary);
  expectKilledServiceIsReported(DaemonRoot::label(0));

  const Array stopped{DaemonRoot::label(1)};
  EXPECT_TRUE(client_->ask("stopServices:", {Value(stopped)}));
  EXPECT_TRUE(client_->ask("services"));  // It is answered after the request has been taken.
  awaitServices(root_, {DaemonRoot::label(1)});
  EXPECT_EQ(client_->ask("pidForService:", {DaemonRoot::label(1)}), MessageResult(Value()));
  EXPECT_TRUE(client_->ask("startServices:", {Value(stopped)}));
  EXPECT_TRUE(client_->ask("services"));
  awaitServices(root_, {DaemonRoot::label(1)});
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
