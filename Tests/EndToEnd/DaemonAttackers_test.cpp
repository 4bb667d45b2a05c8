// Programs of other users that try to be served: docs/security.md says what they can't do.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonAttackers : public DaemonFixture {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start programs as other users";
    start(1);
    std::filesystem::permissions(root_.path(), std::filesystem::perms(0755));
    std::filesystem::copy_file(ATTACKER_PROGRAM, program());
    ASSERT_EQ(::chmod(program().c_str(), 0755), 0);
  }

  std::string program() const { return root_.folder().path("attacker"); }

  // How often that way in was accepted, as the program says it.
  std::string attempt(const std::string& way, int tries) {
    ChildProgram attacker({program(), root_.path(), way, std::to_string(tries)}, {});
    const std::string answer = attacker.nextLine();
    EXPECT_EQ(attacker.waitForExit(), ExitStatus{}) << attacker.errors();
    return answer;
  }
  // The same for a way that is never accepted. Each program has a minute.
  void expectRefused(const std::string& way, int tries) {
    SCOPED_TRACE(way);
    for (int left = tries; left > 0 && !HasFailure(); left -= kTriesOfAProgram) {
      const int now = std::min(left, kTriesOfAProgram);
      const std::string answer = attempt(way, now);
      if (answer == "impossible here") return;
      EXPECT_EQ(answer, none(now));
    }
  }
  static std::string none(int tries) { return "served 0 of " + std::to_string(tries); }
  static std::string all(int tries) {
    return "served " + std::to_string(tries) + " of " + std::to_string(tries);
  }

  // As an administrator may: then only the kernel's word keeps strangers out.
  void openTheFirstGate() {
    for (const std::string& socket : {pathOfConnection(root_.path(), UserInterfaceClient::kServer),
                                      pathOfMachService(root_.path(), kEndpointRegistryService)}) {
      ASSERT_EQ(::chmod(socket.c_str(), 0666), 0);
    }
  }

  void expectUndisturbed() {
    // Refusals are ten lines a minute at most for each of the loggers.
    EXPECT_LT(root_.logCount("of user 6553"), 100u);
    expectKilledServiceIsReported(DaemonRoot::label(0));
    EXPECT_EQ(root_.starts(), 1U);
  }

  static constexpr int kTriesOfAProgram = 500;
};

TEST_F(DaemonAttackers, FindNoWayIn) {
  EXPECT_EQ(attempt("member", 3), all(3));
  EXPECT_EQ(attempt("registry: member", 3), all(3));
  EXPECT_EQ(attempt("endpoint of a member", 3), all(3));
  expectRefused("stranger", 100);
  openTheFirstGate();
  for (const char* way :
       {"stranger", "wrong token", "token of another boot", "descriptor passed on", "reused number",
        "executed afterwards", "user changed afterwards", "user changed after the token",
        "rights gained afterwards", "socket pair", "endpoint passed on", "name of a server",
        "file in the way", "registry: descriptor passed on", "registry: reused number",
        "registry: executed afterwards", "registry: user changed afterwards",
        "registry: rights gained afterwards"}) {
    expectRefused(way, 100);
  }
  expectUndisturbed();
}

// Half a minute each; those that start a program with each try take some minutes.
class DaemonAttackersLong : public DaemonAttackers {
 protected:
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  static constexpr int kTries = 10'000;
#else
  static constexpr int kTries = 1000;
#endif
  void expectNoWayIn(const char* way) {
    openTheFirstGate();
    expectRefused(way, kTries);
    expectUndisturbed();
  }
};

TEST_F(DaemonAttackersLong, AStrangerIsRefused) { expectNoWayIn("stranger"); }
TEST_F(DaemonAttackersLong, AWrongTokenIsRefused) { expectNoWayIn("wrong token"); }
TEST_F(DaemonAttackersLong, AnOldTokenIsRefused) { expectNoWayIn("token of another boot"); }
TEST_F(DaemonAttackersLong, APassedConnectionIsRefused) { expectNoWayIn("descriptor passed on"); }
TEST_F(DaemonAttackersLong, AReusedNumberIsRefused) { expectNoWayIn("reused number"); }
TEST_F(DaemonAttackersLong, AnExecutedProgramIsRefused) { expectNoWayIn("executed afterwards"); }
TEST_F(DaemonAttackersLong, AnotherUserIsRefused) { expectNoWayIn("user changed afterwards"); }
TEST_F(DaemonAttackersLong, AnotherUserIsRefusedAfterTheToken) {
  expectNoWayIn("user changed after the token");
}
TEST_F(DaemonAttackersLong, GainedRightsAreRefused) { expectNoWayIn("rights gained afterwards"); }
TEST_F(DaemonAttackersLong, ASocketPairIsRefused) { expectNoWayIn("socket pair"); }
TEST_F(DaemonAttackersLong, APassedEndpointIsRefused) { expectNoWayIn("endpoint passed on"); }

TEST_F(DaemonAttackersLong, TheRegistryRefusesAPassedConnection) {
  expectNoWayIn("registry: descriptor passed on");
}
TEST_F(DaemonAttackersLong, TheRegistryRefusesAReusedNumber) {
  expectNoWayIn("registry: reused number");
}
TEST_F(DaemonAttackersLong, TheRegistryRefusesAnExecutedProgram) {
  expectNoWayIn("registry: executed afterwards");
}
TEST_F(DaemonAttackersLong, TheRegistryRefusesAnotherUser) {
  expectNoWayIn("registry: user changed afterwards");
}

TEST_F(DaemonAttackers, AreToldByTheOperatorsCommandWhoMay) {
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"list"}, {"endpoints", "lookup", "name"}}) {
    std::vector<std::string> arguments{"/usr/bin/setpriv", "--reuid=65533", "--regid=65533",
                                       "--clear-groups", root_.host().controlProgram()};
    arguments.insert(arguments.end(), command.begin(), command.end());
    ChildProgram control(arguments, {});
    EXPECT_EQ(control.waitForExit(), (ExitStatus{ExitStatus::Kind::kExited, 4})) << command[0];
    EXPECT_THAT(
        control.errors(),
        testing::AllOf(testing::HasSubstr("Permission denied"), testing::HasSubstr("ask as root"),
                       testing::HasSubstr("as a member of the group \"nogroup\"")))
        << command[0];
  }
}

}  // namespace
}  // namespace platform
