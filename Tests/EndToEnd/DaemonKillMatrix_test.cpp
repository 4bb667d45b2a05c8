// The daemon, the job host or both are killed, while a service lives, has ended, or has ended and
// left its number to a stranger. Nothing is started twice, and nothing is without an owner.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <linux/sched.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

constexpr int kRuns = 50;

// A process of the test that has got a number.
class Stranger {
 public:
  explicit Stranger(ProcessId number) : number_(number) {}
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;
  ~Stranger() {
    if (!isStarted_) return;
    EXPECT_TRUE(isRunning(number_)) << "the stranger was killed";
    ::kill(number_, SIGKILL);
    EXPECT_EQ(::waitpid(number_, nullptr, 0), number_);
  }

  // Returns 0, or the errno of the last attempt. Tries until the process before it has been reaped.
  int start() {
    constexpr int kAttempts = 60'000;
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number_);
    arguments.set_tid_size = 1;
    long started = -1;
    for (int i = 0; i < kAttempts; ++i) {
      started = ::syscall(SYS_clone3, &arguments, sizeof arguments);
      if (started >= 0 || errno != EEXIST) break;
      ::poll(nullptr, 0, 1);
    }
    if (started == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) ::pause();
    }
    isStarted_ = started > 0;
    return isStarted_ ? 0 : errno;
  }

 private:
  pid_t number_;
  bool isStarted_ = false;
};

class DaemonKillMatrixLong : public DaemonFixture {
 protected:
  enum class Killed { kDaemon, kHost, kBoth };
  enum class Service { kAlive, kEnded, kNumberReused };

  void play(Killed killed, Service service) {
    start(1);
    for (int run = 0; run < kRuns && !HasFailure() && !IsSkipped(); ++run) {
      SCOPED_TRACE(run);
      playOnce(killed, service);
    }
  }

 private:
  const std::string label_ = DaemonRoot::label(0);

  void playOnce(Killed killed, Service service) {
    const auto before = pids();
    const std::size_t evaluated = evaluations();
    Stranger stranger(before.at(label_));
    if (killed == Killed::kDaemon) {
      killDaemonWith(service, before.at(label_), stranger);
    } else {
      const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
      root_.host().killHost();
      if (killed == Killed::kBoth) killAndAwait(daemon);
      if (service != Service::kAlive) killAndAwait(before.at(label_));
      if (service == Service::kNumberReused) startStranger(stranger);
      if (killed == Killed::kBoth) root_.expectStart();
      root_.host().startHost();
    }
    if (killed != Killed::kHost) {
      root_.awaitStart();
      awaitEvaluation(evaluated);
    }
    expectEachOnce(before, service == Service::kAlive);
  }

  // The host would restart each of them at once.
  void killDaemonWith(Service service, ProcessId process, Stranger& stranger) {
    if (service == Service::kNumberReused) {
      killAndAwait(process);
      startStranger(stranger);
      root_.killDaemon();
      return;
    }
    const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
    root_.host().stopHost();
    ASSERT_NO_FATAL_FAILURE(killAndAwait(daemon));
    if (service == Service::kEnded) killAndAwait(process);
    root_.expectStart();
    root_.host().continueHost();
  }

  static void startStranger(Stranger& stranger) {
    const int error = stranger.start();
    if (error == EPERM || error == ENOSYS) GTEST_SKIP() << "no process can get a number of choice";
    ASSERT_EQ(error, 0);
  }

  void expectEachOnce(const std::map<std::string, ProcessId>& before, bool isSame) {
    root_.await("each service to run once", [&] { return root_.processes().size() == 2; });
    awaitServices(root_, labels());
    const auto after = pids();
    expectNoneLostNoneDoubled(after);
    EXPECT_EQ(after.at(DaemonRoot::kPrimary), before.at(DaemonRoot::kPrimary));
    EXPECT_EQ(after.at(label_) == before.at(label_), isSame);
    EXPECT_GT(after.at(label_), 0);
  }
};

TEST_F(DaemonKillMatrixLong, TheDaemonWithALivingService) {
  play(Killed::kDaemon, Service::kAlive);
}
TEST_F(DaemonKillMatrixLong, TheDaemonWithAnEndedService) {
  play(Killed::kDaemon, Service::kEnded);
}
TEST_F(DaemonKillMatrixLong, TheDaemonWithAReusedNumber) {
  play(Killed::kDaemon, Service::kNumberReused);
}
TEST_F(DaemonKillMatrixLong, TheHostWithALivingService) { play(Killed::kHost, Service::kAlive); }
TEST_F(DaemonKillMatrixLong, TheHostWithAnEndedService) { play(Killed::kHost, Service::kEnded); }
TEST_F(DaemonKillMatrixLong, TheHostWithAReusedNumber) {
  play(Killed::kHost, Service::kNumberReused);
}
TEST_F(DaemonKillMatrixLong, BothWithALivingService) { play(Killed::kBoth, Service::kAlive); }
TEST_F(DaemonKillMatrixLong, BothWithAnEndedService) { play(Killed::kBoth, Service::kEnded); }
TEST_F(DaemonKillMatrixLong, BothWithAReusedNumber) { play(Killed::kBoth, Service::kNumberReused); }

}  // namespace
}  // namespace platform
