// Programs of other users that try to be served: docs/security.md says what they can't do.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/EndpointOwner.h"
#include "Tests/EndToEnd/ProcessUse.h"
#include "Tests/EndToEnd/RegistryAttack.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class DaemonAttackers : public DaemonFixture {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start programs as other users";
    start(1);
    std::filesystem::permissions(root_.path(), std::filesystem::perms(0755));
    std::filesystem::copy_file(ATTACKER_PROGRAM, program());
    ASSERT_EQ(::chmod(program().c_str(), 0755), 0);
    registerRootsName();
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
      ChildProgram attacker({program(), root_.path(), way, std::to_string(now)}, {});
      do askAsRoot();
      while (isRunning(attacker.process()) && !HasFailure());
      const std::string answer = attacker.nextLine();
      EXPECT_EQ(attacker.waitForExit(), ExitStatus{}) << attacker.errors();
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

  // Call this before the attack, and expectUndisturbed() after it.
  void noteUse() {
    for (int i = 0; i < 20; ++i) askAsRoot();  // So that everything has been used once.
    times_.clear();
    memory_ = most_ = memory();
    descriptors_ = descriptors();
  }

  void expectUndisturbed() {
    expectRootsNameIsKept();
    expectUseAsBefore();
    // Refusals are ten lines a minute at most for each of the loggers.
    EXPECT_LT(root_.logCount("of user 6553"), 100u);
    expectKilledServiceIsReported(DaemonRoot::label(0));
    EXPECT_EQ(root_.starts(), 1U);
  }

  static constexpr int kTriesOfAProgram = 500;

 private:
  static constexpr long kMaxGrowth = 32 * 1024;  // kibibytes
  static constexpr long kMaxRest = 4 * 1024;

  void registerRootsName() {
    owner_.emplace(ownersClient_.xpc(), RegistryAttack::kRootsName);
    const auto connection = ownersClient_.connect();
    EXPECT_EQ(RegistryClient::ask(
                  *connection, RegistryClient::kRegister,
                  {owner_->endpoint(), ownersClient_.passkey(), Value(RegistryAttack::kRootsName)}),
              (Array{Value(true), Value()}));
  }
  std::shared_ptr<const NSXPCListenerEndpoint> lookUpRootsName() {
    const auto connection = rootsClient_.connect();
    const auto found =
        RegistryClient::ask(*connection, RegistryClient::kLookUp,
                            {rootsClient_.passkey(), Value(RegistryAttack::kRootsName)});
    return found && !found->empty() ? endpointIn(found->front()) : nullptr;
  }
  void expectRootsNameIsKept() {
    EXPECT_EQ(EndpointOwner::ask(rootsClient_.xpc(), lookUpRootsName()),
              Array{Value(RegistryAttack::kRootsName)});
  }

  // Over connections of their own.
  void askAsRoot() {
    const Instant begun = root_.loop().now();
    UserInterfaceClient asking(root_, UserInterfaceClient::kOperatorServer);
    EXPECT_TRUE(asking.ask("overview"));
    EXPECT_NE(lookUpRootsName(), nullptr);
    times_.push_back(root_.loop().now() - begun);
    most_ = std::max(most_, memory());
  }

  ProcessId daemon() { return root_.processOf(DaemonRoot::kDaemon); }
  long memory() { return privateMemoryOf(daemon()); }
  std::size_t descriptors() { return descriptorsOf(daemon()); }

  // The daemon notices the end of its clients in a few turns, and gives memory back later.
  void expectUseAsBefore() {
    std::ranges::sort(times_);
    RecordProperty("answers", static_cast<int>(times_.size()));
    RecordProperty("p99_us", static_cast<int>(times_.at(times_.size() * 99 / 100) / 1us));
    RecordProperty("growth_KiB", static_cast<int>(most_ - memory_));
    const auto ticks =
        root_.loop().startTimer(50ms, RunLoop::Repeat::kEvery, [this] { root_.changed(); });
    root_.await("the descriptors of the attack to be closed",
                [this] { return descriptors() <= descriptors_; });
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(most_ - memory_, kMaxGrowth);
    root_.await("the memory of the attack to be given back",
                [this] { return memory() - memory_ < kMaxRest; });
    RecordProperty("rest_KiB", static_cast<int>(memory() - memory_));
#endif
  }

  // Two programs of root's: one has a name in the registry, the other looks it up.
  RegistryClient ownersClient_{root_.path(), root_.system()};
  RegistryClient rootsClient_{root_.path(), root_.system()};
  std::optional<EndpointOwner> owner_;
  std::vector<Duration> times_;  // of root's questions during the attack
  long memory_ = 0;
  long most_ = 0;
  std::size_t descriptors_ = 0;
};

TEST_F(DaemonAttackers, FindNoWayIn) {
  EXPECT_EQ(attempt("member", 3), all(3));
  EXPECT_EQ(attempt("registry: member", 3), all(3));
  EXPECT_EQ(attempt("registry: own name", 3), all(3));
  EXPECT_EQ(attempt("endpoint of a member", 3), all(3));
  noteUse();
  expectRefused("stranger", 100);
  openTheFirstGate();
  for (const char* way : {"stranger",
                          "wrong token",
                          "token of another boot",
                          "descriptor passed on",
                          "reused number",
                          "executed afterwards",
                          "user changed afterwards",
                          "user changed after the token",
                          "rights gained afterwards",
                          "socket pair",
                          "endpoint passed on",
                          "name of a server",
                          "file in the way",
                          "registry: descriptor passed on",
                          "registry: reused number",
                          "registry: executed afterwards",
                          "registry: user changed afterwards",
                          "registry: rights gained afterwards",
                          "registry: stranger",
                          "registry: root's name"}) {
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
    noteUse();
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
TEST_F(DaemonAttackersLong, TheRegistryRefusesAStranger) { expectNoWayIn("registry: stranger"); }
TEST_F(DaemonAttackersLong, TheRegistryKeepsRootsName) { expectNoWayIn("registry: root's name"); }

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
