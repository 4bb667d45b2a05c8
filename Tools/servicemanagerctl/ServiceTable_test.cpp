#include "Tools/servicemanagerctl/ServiceTable.h"

#include <algorithm>
#include <chrono>
#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using Activity = ServiceState::Activity;

constexpr WallTime kTableNow{1'000'000'000s};

ServiceState row(const std::string& label, Activity activity, const std::string& why = "",
                 const std::string& reason = "") {
  ServiceState service{.job = {.label = label, .process = {}, .lastExit = {}, .history = {}}};
  service.activity = activity;
  service.why = why;
  service.reason = reason;
  return service;
}

ServiceState running(const std::string& label) {
  ServiceState service = row(label, Activity::kRunning);
  service.job.process = 4711;
  service.since = kTableNow - 90s;
  service.job.history =
      JobHistory{.since = {}, .starts = 2, .ends = 1, .crashes = 1, .lastEnds = {}};
  return service;
}

std::vector<ServiceState> someServices() {
  ServiceState crasher =
      row("crasher", Activity::kWaiting, "restarts in 7 s: ran 3 s of 10", "ended");
  crasher.job.lastExit = {.kind = JobState::Ending::Kind::kSignalled, .number = SIGSEGV};
  crasher.since = kTableNow - 3s;
  ServiceState filter =
      row("filter", Activity::kStopped, "switch off: common/WebFilterEnabled", "noMatch");
  filter.type = ServiceState::Type::kFeature;
  std::vector<ServiceState> services{running("agent"), crasher, filter};
  sortForReading(services);
  return services;
}

std::string tableOf(ServiceTable table) {
  table.now = kTableNow;
  return asTable(someServices(), table);
}

TEST(ServiceTableTest, FailedServicesComeFirst) {
  EXPECT_EQ(
      tableOf({}),
      "LABEL    TYPE     STATE     PID  SINCE  STARTS  WHY\n"
      "crasher  core     waiting     -    3 s       -  restarts in 7 s: ran 3 s of 10\n"
      "agent    core     running  4711   90 s       2  -\n"
      "filter   feature  stopped     -      -       -  switch off: common/WebFilterEnabled\n");
  EXPECT_EQ(asTable(std::vector<ServiceState>(), ServiceTable()), "No services.\n");
}

TEST(ServiceTableTest, ATerminalGetsSymbolsBesideColours) {
  const std::string coloured = tableOf({.reader = Reader::kTerminal, .width = 120});
  EXPECT_THAT(coloured, HasSubstr("\033[31m! waiting\033[0m"));
  EXPECT_THAT(coloured, HasSubstr("\033[32m* running\033[0m"));
  EXPECT_THAT(coloured, HasSubstr("  - stopped  "));
  EXPECT_THAT(coloured, HasSubstr("\033[1mLABEL    TYPE       STATE  "));
  const std::string plain = tableOf({.reader = Reader::kPlainTerminal, .width = 120});
  EXPECT_THAT(plain, HasSubstr("! waiting"));
  EXPECT_THAT(plain, Not(HasSubstr("\033")));
}

TEST(ServiceTableTest, ANarrowTableHasTheReasonBelow) {
  EXPECT_EQ(tableOf({.width = 60}),
            "LABEL    TYPE     STATE     PID  SINCE  STARTS\n"
            "crasher  core     waiting     -    3 s       -\n"
            "    restarts in 7 s: ran 3 s of 10\n"
            "agent    core     running  4711   90 s       2\n"
            "filter   feature  stopped     -      -       -\n"
            "    switch off: common/WebFilterEnabled\n");
  EXPECT_EQ(tableOf({.width = 25}),
            "LABEL    STATE     PID\n"
            "crasher  waiting     -\n"
            "    restarts in 7 s: ran\n"
            "    3 s of 10\n"
            "agent    running  4711\n"
            "filter   stopped     -\n"
            "    switch off:\n"
            "    common/WebFilterEnabled\n");
}

TEST(ServiceTableTest, NoLineIsWiderThanSixtyColumns) {
  const std::string label = "com.vantor.demo.webfilter";
  const std::string why = "restarts in 7 s: ran 3 s of 10, killed by SIGSEGV, core dumped";
  const std::vector<ServiceState> services{row(label, Activity::kWaiting, why, "ended"),
                                           running(label)};
  const std::string table =
      asTable(services, {.reader = Reader::kPlainTerminal, .width = 60, .now = kTableNow});
  std::size_t longest = 0;
  for (std::size_t begin = 0; begin < table.size();) {
    const std::size_t end = table.find('\n', begin);
    longest = std::max(longest, end - begin);
    begin = end + 1;
  }
  EXPECT_LE(longest, 60u) << table;
}

TEST(ServiceTableTest, AWideTableHasWhatTheProcessesUse) {
  ServiceState agent = running("agent");
  agent.job.tree = JobTree{2, 1500ms, 4096};
  EXPECT_EQ(asTable({agent}, {.isWide = true, .width = 20, .now = kTableNow}),
            "LABEL  TYPE  STATE     PID  SINCE  STARTS  CRASHES  PROCESSES  CPU TIME  MEMORY  LAST "
            "EXIT  WHY\n"
            "agent  core  running  4711   90 s       2        1          2    1.50 s   4 KiB  "
            "-          -\n");
}

TEST(ServiceTableTest, FieldsAreChosenByName) {
  EXPECT_EQ(fieldNamed("pid"), ServiceField::kProcess);
  EXPECT_EQ(fieldNamed("PID"), std::nullopt);
  EXPECT_THAT(namesOfFields(), HasSubstr("label, type, state, pid, since"));
  EXPECT_EQ(tableOf({.fields = {ServiceField::kProcess, ServiceField::kLabel}, .width = 5}),
            " PID  LABEL\n"
            "   -  crasher\n"
            "4711  agent\n"
            "   -  filter\n");
}

TEST(ServiceTableTest, ScriptsGetValuesWithoutBlanks) {
  EXPECT_EQ(asValues(someServices(),
                     {ServiceField::kLabel, ServiceField::kProcess, ServiceField::kSince}),
            "crasher\t\t2001-09-09T01:46:37Z\n"
            "agent\t4711\t2001-09-09T01:45:10Z\n"
            "filter\t\t\n");
  EXPECT_EQ(asValues({}, {ServiceField::kLabel}), "");
}

}  // namespace
