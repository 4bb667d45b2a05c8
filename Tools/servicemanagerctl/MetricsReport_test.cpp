#include "Tools/servicemanagerctl/MetricsReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace std::chrono_literals;
using platform::Date;
using platform::Dictionary;
using platform::Value;
using platform::WallTime;
using testing::HasSubstr;
using testing::Not;

Value jobsOfTwo() {
  const Dictionary history{{"Since", Date{0}}, {"Starts", 5}, {"Ends", 4}, {"Crashes", 3}};
  return Dictionary{
      {"b.web", Dictionary{{kFactJob, Dictionary{{"PID", 12}, {"History", history}}}}},
      {"a.core", Dictionary{{kFactJob, Dictionary{{"History", history}}}}},
      {"c.unknown", Dictionary{{kFactJobIsUnknown, true}}}};
}

MetricsReport reportOfThree() {
  const Value overview = Dictionary{
      {kFactOperatingMode, 2},
      {kFactServices,
       Dictionary{{"b.web", Dictionary()}, {"a.core", Dictionary()}, {"c.unknown", Dictionary()}}}};
  return {.collected = WallTime(1'700'000'000s), .manager = managerIn(overview, jobsOfTwo())};
}

TEST(MetricsReportTest, AServiceManagerWithoutAnAnswerIsDown) {
  EXPECT_EQ(asMetrics({.collected = WallTime(1'700'000'000'900ms), .manager = {}}),
            "# HELP servicemanager_up Whether the service manager answers.\n"
            "# TYPE servicemanager_up gauge\n"
            "servicemanager_up 0\n"
            "# HELP servicemanager_collected_timestamp_seconds When these metrics were collected.\n"
            "# TYPE servicemanager_collected_timestamp_seconds gauge\n"
            "servicemanager_collected_timestamp_seconds 1700000000\n");
}

TEST(MetricsReportTest, EveryServiceHasItsStateAndCounts) {
  const std::string text = asMetrics(reportOfThree());
  for (const char* line : {"servicemanager_up 1\n", "servicemanager_mode{mode=\"waiting\"} 1\n",
                           "servicemanager_mode{mode=\"normal\"} 0\n",
                           "servicemanager_service_running{service=\"a.core\"} 0\n",
                           "servicemanager_service_running{service=\"b.web\"} 1\n",
                           "servicemanager_service_wanted{service=\"b.web\"} 1\n",
                           "servicemanager_service_crashes_total{service=\"b.web\"} 3\n",
                           "# TYPE servicemanager_service_starts_total counter\n"})
    EXPECT_THAT(text, HasSubstr(line));
  EXPECT_THAT(text, Not(HasSubstr("c.unknown")));
  EXPECT_THAT(text, Not(HasSubstr("memory_bytes")));  // No job has a tree.
}

TEST(MetricsReportTest, TheReasonTellsWhetherAServiceOughtToRun) {
  MetricsReport report = reportOfThree();
  report.manager->services[0].reason = "damaged";
  EXPECT_THAT(
      asMetrics(report),
      testing::AllOf(
          HasSubstr("servicemanager_service_wanted{service=\"a.core\"} 1\n"),
          HasSubstr(
              "servicemanager_service_down_reason{service=\"a.core\",reason=\"damaged\"} 1\n")));
  for (const char* reason : {"ended", "notStarted", "damaged", "noProgram", "unchecked"})
    EXPECT_EQ(oughtToRun(reason), true) << reason;
  for (const char* reason : {"stopped", "noMatch", "installer", "unsupported", "noJob"})
    EXPECT_EQ(oughtToRun(reason), false) << reason;
  for (const char* reason : {"", "unknown"}) EXPECT_FALSE(oughtToRun(reason)) << reason;
}

TEST(MetricsReportTest, TheUseOfAServiceIsToldIfItIsKnown) {
  MetricsReport report = reportOfThree();
  report.manager->services[1].tree = platform::JobTree{2, 1500ms, 4096};
  EXPECT_THAT(
      asMetrics(report),
      testing::AllOf(HasSubstr("servicemanager_service_processes{service=\"b.web\"} 2\n"),
                     HasSubstr("servicemanager_service_cpu_seconds_total{service=\"b.web\"} 1.5\n"),
                     HasSubstr("servicemanager_service_memory_bytes{service=\"b.web\"} 4096\n")));
}

TEST(MetricsReportTest, ALabelIsEscaped) {
  MetricsReport report = reportOfThree();
  report.manager->services[0].label = "a\"\\\nb";
  EXPECT_THAT(asMetrics(report), HasSubstr("{service=\"a\\\"\\\\\\nb\"} 0\n"));
}

}  // namespace
