// A configuration server that is killed, or finds the disk full, at any moment of a change:
// acknowledged changes are there afterwards.

#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/SettingsProgram.h"
#include "Tests/EndToEnd/Tracing.h"

namespace platform {
namespace {

class DaemonSettingsKill : public testing::Test {
 protected:
  void SetUp() override {
    if (!canTrace()) GTEST_SKIP() << "programs can't be traced here (ptrace is not permitted)";
    program_.emplace(root_);
    Dictionary job{*DaemonRoot::service(DaemonRoot::kPrimary, "configd")["JobSpec"].dictionary()};
    job.set("Label", DaemonRoot::kPrimary);
    job.set("Program", root_.folder().path("opt/configd"));
    job.set("KeepAlive", true);
    ASSERT_TRUE(root_.jobs().SMJobSubmit(kSMDomainSystemLaunchd, Value(std::move(job)), nullptr));
    awaitServer(1);
    observation_ = root_.center().addObserver(kKLXGlobalSettingsDidChangeNotification, std::nullopt,
                                              [this](const DistributedNotification&) {
                                                isAnnounced_ = true;
                                                root_.changed();
                                              });
  }

  void awaitServer(int starts) {
    root_.await("the settings server", [&] { return program_->starts() >= starts; });
  }
  ProcessId server() { return root_.processOf(DaemonRoot::kPrimary); }

  DaemonRoot root_;
  std::optional<SettingsProgram> program_;
  std::unique_ptr<DistributedNotificationCenter::Observation> observation_;
  bool isAnnounced_ = false;
};

TEST_F(DaemonSettingsKill, AtEverySystemCallOfAChange) {
  const std::string trace = root_.folder().path("trace");
  program_->set("key", 0);
  root_.await("the first change", [&] { return isAnnounced_; });
  {
    isAnnounced_ = false;
    const Tracer tracer(server(), {}, trace);
    program_->set("key", 1);
    root_.await("the traced change", [&] { return isAnnounced_; });
  }
  const std::vector<TracedCall> calls = callsIn(trace);
  ASSERT_GT(calls.size(), 10U);
  int kept = 1;
  int acknowledged = 0;
  int value = 1;
  for (const TracedCall& call : calls) {
    SCOPED_TRACE("killed at call " + std::to_string(call.number) + " of " + call.name);
    const int starts = program_->starts();
    const ProcessId process = server();
    ASSERT_GT(process, 0);
    isAnnounced_ = false;
    ++value;
    {
      const Tracer tracer(process, call.killThere());
      program_->set("key", value);
      root_.await("an end or an announcement",
                  [&] { return isAnnounced_ || program_->starts() > starts; });
      // The call at which it is to be killed comes later than that.
      if (program_->starts() == starts) ::kill(process, SIGKILL);
    }
    awaitServer(starts + 1);
    const auto now = program_->client().objectForKey("key").integer();
    ASSERT_TRUE(now);
    if (isAnnounced_) {
      EXPECT_EQ(*now, value);
      ++acknowledged;
    } else {
      EXPECT_TRUE(*now == value || *now == kept) << *now;
    }
    kept = static_cast<int>(*now);
    if (HasFailure()) return;
  }
  // Some kills came before the announcement, too.
  EXPECT_GT(static_cast<int>(calls.size()) - acknowledged, 5);
  RecordProperty("calls", static_cast<int>(calls.size()));
  RecordProperty("acknowledged", acknowledged);
}

TEST_F(DaemonSettingsKill, AChangeOnAFullDiskFailsAndTheServerGoesOn) {
  program_->set("key", 1);
  ASSERT_EQ(program_->client().objectForKey("key"), Value(1));
  const ProcessId process = server();
  isAnnounced_ = false;
  {
    const Tracer tracer(process, {"-e", "inject=pwrite64:error=ENOSPC"});
    program_->set("key", 2);
    program_->client().sendMessage("registerDefaults:", {Dictionary{{"default", 1}}});
    EXPECT_EQ(
        program_->client().sendMessage("persistBlob:forKey:sender:", {Data{1}, "blob", "test"}),
        MessageResult(Value(false)));
    EXPECT_EQ(program_->client().objectForKey("key"), Value(1));
  }
  root_.awaitLog("setObject:forKey:sender: is refused: ");
  EXPECT_GT(root_.logCount("database or disk is full"), 0U);
  EXPECT_FALSE(isAnnounced_);
  program_->set("key", 3);
  root_.await("the change", [&] { return isAnnounced_; });
  EXPECT_EQ(program_->client().objectForKey("key"), Value(3));
  EXPECT_TRUE(program_->client().objectForKey("default").isNil());
  EXPECT_EQ(server(), process);
}

}  // namespace
}  // namespace platform
