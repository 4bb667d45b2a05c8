// The daemon and the job host beside a log whose disk hangs: a tracer holds up their writes to it,
// or the disk is frozen.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/ExitStatuses.h"
#include "Tests/EndToEnd/FreezableDisk.h"
#include "Tests/EndToEnd/Tracing.h"

namespace platform {
namespace {

class DaemonBesideLog : public DaemonFixture {
 protected:
  using DaemonFixture::DaemonFixture;

  // The state of its main thread in /proc: 'Z' once the process has ended.
  static char stateOf(ProcessId process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name = text.rfind(") ");
    return name == text.npos ? 'Z' : text[name + 2];
  }

  void expectTheOperatorIsAnswered() {
    const auto listed = root_.host().control({"list"});
    EXPECT_EQ(listed.status, kSuccess) << listed.errors;
    EXPECT_NE(listed.output.find(DaemonRoot::label(1)), listed.output.npos) << listed.output;
  }

  // Makes the daemon log more than its buffer holds. The notices come in portions that the bus
  // takes.
  void fillBuffer() {
    constexpr char kChange[] = "KLXGlobalSettingsDidChangeNotification";
    constexpr std::size_t kPortion = 10;
    std::size_t distributed = 0;
    const auto observation =
        root_.center().addObserver(kChange, std::nullopt, [&](const DistributedNotification&) {
          ++distributed;
          root_.changed();
        });
    for (std::size_t posted = 0; posted < 80 && !HasFailure();) {
      for (std::size_t i = 0; i < kPortion; ++i) {
        root_.center().postNotificationName(
            kChange, std::nullopt,
            Dictionary{{"KLXGlobalSettingsKeyModified", std::string(60'000, 'x')}},
            NSNotificationPosting::kPostToAllSessions);
      }
      posted += kPortion;
      root_.await("the notices", [&] { return distributed >= posted; });
    }
  }

  // Ends the daemon by SIGTERM. Its thread of the log hangs, and nothing else is left of it.
  void terminateDaemon() {
    root_.expectStart();
    const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
    const Instant asked = root_.loop().now();
    root_.kill(DaemonRoot::kDaemon, SIGTERM);
    const auto look = root_.loop().startTimer(std::chrono::milliseconds(10),
                                              RunLoop::Repeat::kEvery, [this] { root_.changed(); });
    root_.await("the end of the daemon", [&] { return stateOf(daemon) == 'Z'; });
    EXPECT_LT(root_.loop().now() - asked, kMostTime);
  }

  // Generous: a write that is held up lasts much longer.
  static constexpr Duration kMostTime = std::chrono::seconds(20);
};

class DaemonFrozenLog : public DaemonBesideLog {
 protected:
  void SetUp() override {
    if (!canTrace()) GTEST_SKIP() << "no permission to trace programs";
    start(2);
  }

  // From now on no write of these programs to the log returns.
  void freezeLog() {
    for (const ProcessId process :
         {root_.processOf(DaemonRoot::kDaemon), root_.host().hostProcess()})
      tracers_.push_back(freezeLogOf(process));
  }
  void thawLog() { tracers_.clear(); }

 private:
  std::unique_ptr<Tracer> freezeLogOf(ProcessId process) {
    // Longer than any test waits.
    std::vector<std::string> options{"-P", root_.folder().path("log/system.log"),
                                     "-e", "trace=write",
                                     "-e", "inject=write:delay_enter=600000000"};
    int others = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      const std::string thread = entry.path().filename().string();
      if (thread == std::to_string(process)) continue;
      options.insert(options.end(), {"-p", thread});
      ++others;
    }
    auto tracer = std::make_unique<Tracer>(process, options);
    for (; others > 0; --others) tracer->nextMessage();
    return tracer;
  }

  std::vector<std::unique_ptr<Tracer>> tracers_;
};

TEST_F(DaemonFrozenLog, KilledServicesComeBackAndTheLossIsReported) {
  const std::string label = DaemonRoot::label(0);
  const std::string ended = label + " with PID [";
  freezeLog();
  const std::size_t before = root_.logCount("\n");
  for (int i = 0; i < 5 && !HasFailure(); ++i) expectKilledServiceIsReported(label);
  expectTheOperatorIsAnswered();
  fillBuffer();
  for (int i = 0; i < 5 && !HasFailure(); ++i) expectKilledServiceIsReported(label);
  expectTheOperatorIsAnswered();
  EXPECT_EQ(root_.logCount(ended), 0U);
  EXPECT_EQ(root_.logCount("\n"), before);

  thawLog();
  root_.awaitLog(ended, 5);
  expectKilledServiceIsReported(label);
  root_.awaitLog(" messages were lost here.");
  expectNoneLostNoneDoubled(pids());
}

TEST_F(DaemonFrozenLog, RequestsAndTheEndAreServed) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the leak check at the end of a program fails under a tracer";
#endif
  const std::string label = DaemonRoot::label(0);
  freezeLog();
  const Instant begin = root_.loop().now();
  const auto explained = root_.host().control({"explain", label});
  EXPECT_EQ(explained.status, kSuccess) << explained.errors;
  EXPECT_NE(explained.output.find(label), explained.output.npos) << explained.output;
  const auto stopped = root_.host().control({"stop", label});
  EXPECT_EQ(stopped.status, kSuccess) << stopped.errors;
  EXPECT_EQ(root_.processOf(label), 0);
  EXPECT_LT(root_.loop().now() - begin, kMostTime);
  terminateDaemon();
  thawLog();
  root_.awaitStart();
}

// This exists before the daemon's root, and takes its log.
struct DiskOfLog {
  FreezableDisk disk_;
  bool isMounted_ = false;
};

class DaemonFrozenDiskLong : private DiskOfLog, public DaemonBesideLog {
 protected:
  static constexpr Duration kFrozen = std::chrono::minutes(1);

  DaemonFrozenDiskLong()
      : DaemonBesideLog(
            {}, [this](const std::string& folder) { isMounted_ = disk_.mountAt(folder); }) {}
  void SetUp() override {
    if (!isMounted_) GTEST_SKIP() << disk_.why();
    start(2);
  }
  // The root can't be removed while the disk is in it.
  void TearDown() override { disk_.unmount(); }

  void freeze() { disk_.freeze(); }
  void thaw() { disk_.thaw(); }

  void expectControl(const std::vector<std::string>& arguments, const std::string& text) {
    const Instant begin = root_.loop().now();
    const auto done = root_.host().control(arguments);
    EXPECT_EQ(done.status, kSuccess) << done.errors;
    EXPECT_NE(done.output.find(text), done.output.npos) << done.output;
    EXPECT_LT(root_.loop().now() - begin, kMostTime) << arguments.front();
  }
  // The operator asks, stops and starts, and a service is killed.
  void round() {
    const std::string label = DaemonRoot::label(1);
    expectControl({"list"}, label);
    expectControl({"explain", label}, label + " runs as process");
    expectControl({"stop", label}, label + " is stopped");
    EXPECT_EQ(root_.processOf(label), 0);
    client_->forgetNotices();
    expectControl({"start", label}, label);
    root_.await(label + " to be back", [&] { return client_->hasNotice(label, 1); });
    expectKilledServiceIsReported(DaemonRoot::label(0));
  }
};

TEST_F(DaemonFrozenDiskLong, AMinuteHoldsUpNothing) {
  freeze();
  const std::size_t before = root_.logCount("\n");
  const Instant frozen = root_.loop().now();
  round();
  fillBuffer();
  int rounds = 1;
  for (; root_.loop().now() - frozen < kFrozen && !HasFailure(); ++rounds) round();
  EXPECT_EQ(root_.logCount("\n"), before);
  RecordProperty("rounds", rounds);

  thaw();
  round();  // The next line says what was dropped.
  root_.awaitLog(" messages were lost here.");
  expectNoneLostNoneDoubled(pids());
}

TEST_F(DaemonFrozenDiskLong, TheEndIsServed) {
  freeze();
  round();
  terminateDaemon();
  thaw();
  root_.awaitStart();
}

}  // namespace
}  // namespace platform
