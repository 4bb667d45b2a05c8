// The operator asks a daemon whose main thread is held.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Tests/EndToEnd/DemoRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"
#include "Tests/EndToEnd/HeldThread.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class HeldMainThread : public testing::Test {
 protected:
  static constexpr char kAgent[] = "com.vantor.demo.agent";
  static constexpr char kBusy[] = "main thread is busy";
  // A question that waited for the main thread would take a minute.
  static constexpr Duration kMostTime = 5s;

  // Asks until the service manager says that its main thread has been busy for over a second.
  JobHostRoot::Finished listOfBusyDaemon() {
    const Instant start = monotonicTime();
    JobHostRoot::Finished listed;
    do {
      listed = quickly({"list"});
    } while (listed.errors.find(kBusy) == std::string::npos && monotonicTime() - start < 30s);
    return listed;
  }
  JobHostRoot::Finished quickly(const std::vector<std::string>& arguments) {
    const Instant start = monotonicTime();
    auto finished = root_.control(arguments);
    EXPECT_LT(monotonicTime() - start, kMostTime) << arguments.front();
    EXPECT_EQ(finished.status, exited(0)) << finished.errors;
    return finished;
  }

  DemoRoot root_;
};

TEST_F(HeldMainThread, HoldsUpNoAnswerToTheOperator) {
  const std::string agent = std::to_string(root_.processOf(kAgent));
  // The last picture has all that has happened so far.
  EXPECT_THAT(quickly({"list"}).output, HasSubstr(agent));
  std::optional<HeldThread> held(std::in_place, root_.processOf(DemoRoot::kDaemon));
  if (!held->isHeld()) GTEST_SKIP() << "this user may not hold a thread of another program";

  const auto listed = listOfBusyDaemon();
  EXPECT_THAT(listed.output, ContainsRegex("demo\\.agent +core +running +" + agent + "  "));
  EXPECT_THAT(listed.errors, AllOf(HasSubstr(kBusy), HasSubstr("gives no answer, for ")));
  EXPECT_THAT(quickly({"explain", kAgent}).output,
              AllOf(HasSubstr("runs as process " + agent + ", because"),
                    ContainsRegex("main thread +gives no answer, for [0-9.]+ s\n")));
  EXPECT_THAT(quickly({"explain", kAgent, "--json"}).output, HasSubstr("\"BusyFor\": "));
  EXPECT_THAT(quickly({"health"}).output, HasSubstr(kAgent));
  EXPECT_THAT(quickly({"extensions"}).output, HasSubstr("com.vantor.nke.wfk"));

  held.reset();
  EXPECT_THAT(quickly({"stop", kAgent}).output, HasSubstr("is stopped"));
  const auto after = quickly({"list"});
  EXPECT_THAT(after.errors, Not(HasSubstr(kBusy)));
  EXPECT_THAT(after.output, ContainsRegex("demo\\.agent +core +stopped"));
  EXPECT_THAT(quickly({"explain", kAgent}).output,
              AllOf(HasSubstr("it was asked to be stopped"), Not(HasSubstr("main thread"))));
}

}  // namespace
}  // namespace platform
