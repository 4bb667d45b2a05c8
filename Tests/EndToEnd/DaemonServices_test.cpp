// Services that end, one by one and many at once, while the daemon watches them.

#include <chrono>
#include <csignal>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;

class DaemonServices : public DaemonFixture {};
// Half a minute each, because the daemon waits that long for a hung host's answer.
class DaemonServicesLong : public DaemonServices {};

TEST_F(DaemonServices, EachOfAHundredKillsIsReported) {
  // Many kills of one service would wait for the job host's growing pauses.
  constexpr int kServices = 20;
  constexpr int kTimes = 5;
  start(kServices);
  std::set<ProcessId> processes;
  for (int service = 0; service < kServices; ++service) {
    processes.insert(root_.processOf(DaemonRoot::label(service)));
  }
  for (int i = 0; i < kTimes * kServices && !HasFailure(); ++i) {
    processes.insert(expectKilledServiceIsReported(DaemonRoot::label(i % kServices)));
  }
  EXPECT_EQ(processes.size(), (kTimes + 1) * kServices);
  for (int service = 0; service < kServices; ++service) {
    const std::string ended = DaemonRoot::label(service) + " with PID [";
    root_.awaitLog(ended, kTimes);  // The log is written later.
    EXPECT_EQ(root_.logCount(ended), kTimes);
  }
  expectNoneLostNoneDoubled(pids());
}

TEST_F(DaemonServices, TwentySimultaneousKillsAreAllRestarted) {
  start(20);
  const auto before = pids();
  const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
  ASSERT_GT(daemon, 0);
  // Nothing sees any end before all have ended.
  ASSERT_EQ(::kill(daemon, SIGSTOP), 0);
  root_.host().stopHost();
  for (const auto& [label, process] : before) {
    if (label != DaemonRoot::kPrimary) killAndAwait(process);
  }
  root_.host().continueHost();
  ASSERT_EQ(::kill(daemon, SIGCONT), 0);
  root_.await("all services to be back", [&] {
    int back = 0;
    for (int i = 0; i < services_; ++i) back += client_->hasNotice(DaemonRoot::label(i), 1) ? 1 : 0;
    return back == services_;
  });
  EXPECT_EQ(client_->notices().size(), static_cast<std::size_t>(2 * services_));
  const auto now = pids();
  for (int i = 0; i < services_; ++i) {
    const std::string label = DaemonRoot::label(i);
    std::vector<Notice> told;
    for (const Notice& notice : client_->notices()) {
      if (notice.label == label) told.push_back(notice);
    }
    EXPECT_THAT(told, ElementsAre(Notice{label, 0, 0}, Notice{label, 1, now.at(label)}));
    EXPECT_NE(now.at(label), before.at(label));
  }
  expectNoneLostNoneDoubled(now);
  for (int i = 0; i < services_ && !HasFailure(); ++i) {
    expectKilledServiceIsReported(DaemonRoot::label(i));
  }
}

TEST_F(DaemonServices, AReturningConfigurationServerCausesAnEvaluation) {
  start(2);
  // It announces its end, and the daemon evaluates nothing any more ...
  root_.center().postNotificationName("com.vantor.notification.configd.willshutdown", std::nullopt,
                                      {}, NSNotificationPosting::kPostToAllSessions);
  root_.awaitLog("Primary service is shutting down");
  const std::string label = DaemonRoot::label(0);
  killAndAwait(root_.processOf(label));
  root_.await("the end of the service", [&] { return client_->hasNotice(label, 0); });
  EXPECT_TRUE(client_->ask("services"));  // The daemon has processed that end.
  EXPECT_FALSE(client_->hasNotice(label, 1));

  // ... until it is back.
  const std::size_t before = evaluations();
  root_.kill(DaemonRoot::kPrimary, SIGKILL);
  root_.await("the service to be watched again", [&] { return client_->hasNotice(label, 1); });
  root_.awaitLog("Primary service did start and ready to handle requests", 2);
  root_.await("the evaluation", [&] { return evaluations() > before; });
  EXPECT_THAT(client_->notices(), Contains(Notice{label, 1, root_.processOf(label)}));
  expectKilledServiceIsReported(label);
}

TEST_F(DaemonServices, AnOrderlyRestartOfTheConfigurationServerIsFollowed) {
  start(1);
  const ProcessId before = root_.processOf(DaemonRoot::kPrimary);
  ASSERT_GT(before, 0);
  ASSERT_EQ(::kill(before, SIGTERM), 0);
  root_.awaitLog("Primary service is shutting down");
  root_.awaitLog("Primary service did start and ready to handle requests", 2);
  root_.await("the server to be watched again",
              [&] { return client_->hasNotice(DaemonRoot::kPrimary, 1); });
  EXPECT_THAT(client_->notices(),
              Contains(Notice{DaemonRoot::kPrimary, 1, root_.processOf(DaemonRoot::kPrimary)}));
  EXPECT_NE(root_.processOf(DaemonRoot::kPrimary), before);
  expectKilledServiceIsReported(DaemonRoot::label(0));
}

TEST_F(DaemonServices, AHungJobHostDelaysNoAnswerToTheOperator) {
  start(2);
  const std::string label = DaemonRoot::label(0);
  const std::string other = DaemonRoot::label(1);
  const ProcessId process = root_.processOf(label);
  const ProcessId ended = root_.processOf(other);
  root_.host().stopHost();
  const Instant before = monotonicTime();
  EXPECT_THAT(root_.host().control({"list"}).output,
              ContainsRegex(label + " +core +running +" + std::to_string(process) + " "));
  EXPECT_THAT(root_.host().control({"explain", label}).output,
              HasSubstr(label + " runs as process " + std::to_string(process) + ", because"));
  killAndAwait(ended);
  root_.await("the end", [&] { return client_->hasNotice(other, 0); });
  EXPECT_THAT(root_.host().control({"list"}).output,
              ContainsRegex(other + " +core +waiting +- .* ended: unknown\n"));
  EXPECT_THAT(root_.host().control({"explain", other}).output,
              HasSubstr("it is wanted, and its process has ended"));
  EXPECT_LT(monotonicTime() - before, 20s);  // A wait for the job host takes 30 s.
  // Only the host can tell what the processes take, so this is left out.
  EXPECT_THAT(root_.host().control({"list", "--wide"}).output, HasSubstr(std::to_string(process)));
  root_.host().continueHost();
  root_.await("the service to be back", [&] { return client_->hasNotice(other, 1); });
  EXPECT_THAT(root_.host().control({"list"}).output,
              ContainsRegex(other + " +core +running +" + std::to_string(root_.processOf(other)) +
                            " .* killed by SIGKILL, 1 crash in 2 starts\n"));
}

TEST_F(DaemonServicesLong, AStopFailsWhileTheJobHostHangs) {
  start(2);
  const std::string label = DaemonRoot::label(0);
  const ProcessId process = root_.processOf(label);
  client_.reset();  // It could not take its notifications while the test waits for a command.
  root_.host().stopHost();
  const auto stopped = root_.host().control({"stop", label});
  EXPECT_EQ(stopped.status, exited(1));
  EXPECT_EQ(stopped.output, label + " runs as process " + std::to_string(process) + ".\n");
  EXPECT_THAT(stopped.errors, HasSubstr("not every service is stopped"));
  root_.awaitLog("Unable to unload " + label);
  EXPECT_TRUE(isRunning(process));
  // No other client gets "stopped" as the answer, or waits for the host as long again.
  EXPECT_THAT(root_.host().control({"list"}).output,
              ContainsRegex(label + " +core +running +" + std::to_string(process) + "  "));
  EXPECT_THAT(root_.host().control({"explain", label}).output,
              HasSubstr(label + " runs as process " + std::to_string(process) + ", although"));

  const std::string other = "Evaluating service: " + DaemonRoot::label(1) + "\n";
  const std::size_t before = root_.logCount(other);
  root_.host().continueHost();
  root_.awaitLog("The job host answers again");
  root_.awaitLog("Did enforce shutdown for service: " + label);
  EXPECT_FALSE(isRunning(process));
  root_.awaitLog(other, before + 1);
  EXPECT_EQ(root_.host().control({"start", label}).status, exited(0));
  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
  for (const std::string& each : {label, DaemonRoot::label(1)}) expectKilledServiceIsReported(each);
  expectNoneLostNoneDoubled(pids());
}

TEST_F(DaemonServicesLong, AServiceThatEndedWhileTheHostHungIsRestarted) {
  start(2);
  const std::string label = DaemonRoot::label(0);
  const ProcessId before = root_.processOf(label);
  root_.host().stopHost();
  killAndAwait(before);
  root_.awaitLog("Unable to submit job:");  // The evaluation after its end finds no host.
  client_->forgetNotices();
  root_.host().continueHost();
  root_.await(label + " to be back", [&] { return client_->hasNotice(label, 1); });
  EXPECT_NE(root_.processOf(label), before);
  expectNoneLostNoneDoubled(pids());
  expectKilledServiceIsReported(label);
}

}  // namespace
}  // namespace platform
