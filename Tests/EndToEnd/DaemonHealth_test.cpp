// The health record and the operator's view of it, with real services.

#include <csignal>

#include <gmock/gmock.h>

#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class DaemonHealth : public testing::Test {
 protected:
  static constexpr char kReportServer[] = "ServiceManagerHealthInfo";
  static constexpr char kOperatorServer[] = "com.vantor.servicemanager.operator.server";
  static constexpr char kHosted[] = "kKLXInstallTypeHostedManagedID";

  DaemonHealth() {
    root_.setProductFile(
        "<plist version=\"1.0\"><dict><key>GUID</key>"
        "<string>71C0E5B9-2A8D-4F36-B0E4-9D63A1F2C875</string></dict></plist>");
    Dictionary catalogue = DaemonRoot::catalogue(2);
    Dictionary services;
    for (const auto& [label, entry] : *catalogue["Services"].dictionary()) {
      Dictionary hosted = *entry.dictionary();
      hosted.set("Products", Array{kHosted});
      services.set(label, std::move(hosted));
    }
    catalogue.set("Services", std::move(services));
    root_.setCatalogue(catalogue);
    root_.startDaemon();
    root_.awaitStart();
    root_.awaitLog("Evaluating service: " + kB + "\n");
    awaitServices(root_, {DaemonRoot::kPrimary, kA, kB});
    client_ = std::make_unique<UserInterfaceClient>(root_);
    client_->registerClient();
  }

  // Kills the service and waits until it runs again and is watched.
  void crash(const std::string& label) {
    client_->forgetNotices();
    const ProcessId before = root_.processOf(label);
    ASSERT_GT(before, 0);
    ASSERT_EQ(::kill(before, SIGKILL), 0);
    root_.await(label + " to be back", [&] { return client_->hasNotice(label, 1); });
    EXPECT_TRUE(client_->ask("services"));  // The daemon has reported that start, too.
  }
  Value summary() {
    UserInterfaceClient reporter(root_, kReportServer);
    return reporter.ask("getHealthStateForServices").value_or(Value());
  }
  Value crashesOf(const std::string& label) {
    UserInterfaceClient looker(root_, kOperatorServer);
    const Value record = looker.ask("healthRecord").value_or(Value());
    return record[kHealthServices][label][kHealthCrashes];
  }
  // The output of the operator's command, and its status.
  std::pair<int, std::string> control(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), control_);
    ChildProgram program(arguments, {});
    const ExitStatus status = program.waitForExit();
    return {status.number, program.restOfOutput() + program.errors()};
  }

  DaemonRoot root_;
  const std::string control_ = root_.folder().path("servicemanagerctl");
  const std::string kA = DaemonRoot::label(0);
  const std::string kB = DaemonRoot::label(1);
  std::unique_ptr<UserInterfaceClient> client_;
};

// The job host counts, so the next daemon knows what the one before has seen.
TEST_F(DaemonHealth, TheCountsOutliveTheDaemon) {
  crash(kA);
  crash(kA);
  const std::string evaluation = "Evaluating service: " + kB + "\n";
  const std::size_t before = root_.logCount(evaluation);
  root_.killDaemon();
  root_.awaitStart();
  root_.awaitLog(evaluation, before + 1);
  awaitServices(root_, {DaemonRoot::kPrimary, kA, kB});
  const auto [healthStatus, health] = control({"health"});
  EXPECT_EQ(healthStatus, 0) << health;
  EXPECT_THAT(health, HasSubstr("3 starts, 2 ends, 2 crashes."));
  EXPECT_EQ(crashesOf(kA), Value(0));  // The record in memory begins with the daemon.
  const auto [listStatus, list] = control({"list"});
  EXPECT_EQ(listStatus, 0) << list;
  EXPECT_THAT(list, HasSubstr("2 crashes in 3 starts"));
}

TEST_F(DaemonHealth, ACrashLoopIsUnhealthyForOneSummary) {
  const Value healthy = Dictionary{{DaemonRoot::kPrimary, 0}, {kA, 0}, {kB, 0}};
  EXPECT_EQ(summary(), healthy);
  UserInterfaceClient reporter(root_, kReportServer);
  EXPECT_EQ(reporter.ask("isReadyToReport"), Value(true));
  for (int i = 0; i < 3; ++i) crash(kA);
  crash(kB);
  EXPECT_EQ(crashesOf(kA), Value(3));
  EXPECT_EQ(crashesOf(kB), Value(1));  // The report has not reset the count:
  EXPECT_EQ(summary(), Value(Dictionary{{DaemonRoot::kPrimary, 0}, {kA, 1}, {kB, 0}}));
  EXPECT_EQ(summary(), healthy);
}

// The job host makes pauses between them, which grow to a second.
TEST_F(DaemonHealth, EachForcedStopOfACrashLoopIsCounted) {
  for (int i = 1; i <= 10 && !HasFailure(); ++i) {
    crash(kA);
    EXPECT_EQ(crashesOf(kA), Value(i));
  }
}

TEST_F(DaemonHealth, TheOperatorSeesHealthAndReason) {
  crash(kA);
  const auto [status, table] = control({"health"});
  EXPECT_EQ(status, 0);
  EXPECT_THAT(
      table, AllOf(HasSubstr("LABEL"), HasSubstr(kA + "        running               1  healthy\n"),
                   HasSubstr(kB + "        running               0  healthy\n")));
  const auto [metricsStatus, metrics] = control({"health", "--openmetrics"});
  EXPECT_EQ(metricsStatus, 0);
  EXPECT_THAT(metrics, AllOf(HasSubstr("servicemanager_ready_to_report 1\n"),
                             HasSubstr("servicemanager_service_forced_stops{service=\"" + kA +
                                       "\",name=\"" + kA + "\"} 1\n"),
                             testing::EndsWith("# EOF\n")));
  EXPECT_THAT(metrics, HasSubstr("servicemanager_service_crashes_total{service=\"" + kA +
                                 "\",name=\"" + kA + "\"} 1\n"));
  EXPECT_THAT(table, HasSubstr("2 starts, 1 ends, 1 crashes."));
  EXPECT_THAT(control({"health", "--json"}).second, HasSubstr("\"readyToReport\": true"));

  EXPECT_THAT(control({"explain", kA}).second,
              AllOf(HasSubstr(kA + " runs as process " + std::to_string(root_.processOf(kA)) +
                              ", because every core service of the product is to run.\n"),
                    HasSubstr("killed by SIGKILL"), HasSubstr("intact, signed as"),
                    HasSubstr("has ended by itself once since the last summary")));
  EXPECT_TRUE(client_->ask("stopServices:", Array{Value(Array{kB})}));
  root_.await("the stop to be told", [&] { return client_->hasNotice(kB, 0); });
  EXPECT_THAT(control({"explain", kB}).second,
              HasSubstr(kB + " does not run: it was asked to be stopped"));
  EXPECT_THAT(control({"explain", kB, "--json"}).second, HasSubstr("\"reason\": \"stopped\""));
}

TEST_F(DaemonHealth, AnUnknownLabelIsAnsweredWithTheNearestOnes) {
  const auto [status, text] = control({"explain", "com.vantor.test.9"});
  EXPECT_EQ(status, 3);
  EXPECT_THAT(text, HasSubstr("no service has the label \"com.vantor.test.9\"; did you mean " + kA +
                              " or " + kB));
  EXPECT_EQ(control({"explain"}).first, 2);
  EXPECT_EQ(control({"health", "--json", "--openmetrics"}).first, 2);
}

}  // namespace
}  // namespace platform
