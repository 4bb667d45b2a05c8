#include "Tools/servicemanagerctl/HealthReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using testing::HasSubstr;
using testing::Not;

Dictionary service(const char* name, int status, int crashes) {
  return {{kHealthName, name}, {kHealthStatus, status}, {kHealthCrashes, crashes}};
}

Value record() {
  Dictionary running = service("/opt/agent", 1, 0);
  running.set(kHealthReported, kHealthy);
  Dictionary crashing = service("com.example.web", 0, 12);
  crashing.set(kHealthReported, kUnhealthy);
  return Dictionary{{kHealthReadyToReport, true},
                    {kHealthCrashLimit, 3},
                    {kHealthServices,
                     Dictionary{{"com.example.web", crashing},
                                {"com.example.agent", running},
                                {"com.example.stopped", service("com.example.stopped", 2, 0)},
                                {"gone", Dictionary{{kHealthName, "gone"}, {kHealthCrashes, 1}}}}}};
}

TEST(HealthReportTest, IsReadFromTheRecordSortedByLabel) {
  const auto report = healthReport(record());
  ASSERT_TRUE(report);
  EXPECT_TRUE(report->isReadyToReport);
  EXPECT_EQ(report->crashLimit, 3);
  using Service = HealthReport::Service;
  EXPECT_THAT(
      report->services,
      testing::ElementsAre(
          Service{"com.example.agent", "/opt/agent", HealthStatus::kRunning, 0, true},
          Service{"com.example.stopped", "com.example.stopped", HealthStatus::kStopped, 0, {}},
          Service{"com.example.web", "com.example.web", HealthStatus::kUnready, 12, false},
          Service{"gone", "gone", {}, 1, {}}));
}

TEST(HealthReportTest, TheJobHostsCountsAreTold) {
  const Dictionary history{{"Since", Date{0}}, {"Starts", 5}, {"Ends", 4}, {"Crashes", 3}};
  const Value jobs =
      Dictionary{{"com.example.web", Dictionary{{"Job", Dictionary{{"History", history}}}}}};
  const auto report = healthReport(record(), jobs);
  EXPECT_THAT(
      asTable(report, Reader::kOther),
      HasSubstr("\ncom.example.web\nSince 2001-01-01T00:00:00Z: 5 starts, 4 ends, 3 crashes.\n"));
  EXPECT_EQ(asJson(report)["services"][2]["history"]["crashes"], 3);
  EXPECT_THAT(asOpenMetrics(report),
              HasSubstr("servicemanager_service_starts_total{service=\"com.example.web\","
                        "name=\"com.example.web\"} 5\n"));
}

TEST(HealthReportTest, MalformedEntriesCountAsAbsent) {
  EXPECT_FALSE(healthReport({}));
  EXPECT_FALSE(healthReport("text"));
  EXPECT_EQ(healthReport(Dictionary()), HealthReport{});
  EXPECT_EQ(healthReport(Dictionary{{kHealthServices, 3}}), HealthReport{});
  const auto report = healthReport(Dictionary{
      {kHealthServices, Dictionary{{"a", Dictionary{{kHealthStatus, 4}}}, {"b", "text"}}}});
  ASSERT_TRUE(report);
  EXPECT_THAT(report->services, testing::ElementsAre(HealthReport::Service{"a", "a", {}, 0, {}},
                                                     HealthReport::Service{"b", "b", {}, 0, {}}));
}

TEST(HealthReportTest, TheTableIsAligned) {
  EXPECT_EQ(asTable(healthReport(record()), Reader::kOther),
            "LABEL                STATUS          CRASHES  REPORTED\n"
            "com.example.agent    running               0  healthy\n"
            "com.example.stopped  stopped               0  -\n"
            "com.example.web      unready              12  unhealthy\n"
            "gone                 not supervised        1  -\n");
}

TEST(HealthReportTest, AnUnreliableTableSaysSo) {
  EXPECT_EQ(asTable(healthReport(Dictionary()), Reader::kOther),
            "The health reporter is told not to rely on this now.\n");
  EXPECT_EQ(asTable(std::nullopt, Reader::kOther),
            "The installed product keeps no health record.\n");
}

TEST(HealthReportTest, OnATerminalTroubleIsColouredAndControlCharactersEscaped) {
  const std::string table = asTable(healthReport(record()), Reader::kTerminal);
  EXPECT_THAT(table, HasSubstr("\033[31munhealthy\033[0m"));
  EXPECT_THAT(table, HasSubstr("\033[32mhealthy\033[0m"));
  EXPECT_THAT(table, HasSubstr("\033[31m     12\033[0m"));
  const Value hostile =
      Dictionary{{kHealthServices, Dictionary{{"\033[2J", service("\033", 1, 0)}}}};
  EXPECT_THAT(asTable(healthReport(hostile), Reader::kOther), Not(HasSubstr("\033")));
}

TEST(HealthReportTest, ProgramsGetEverything) {
  const auto json = asJson(healthReport(record()));
  EXPECT_EQ(json["readyToReport"], true);
  EXPECT_EQ(json["crashLimit"], 3);
  EXPECT_EQ(json["services"][0].dump(),
            R"({"label":"com.example.agent","name":"/opt/agent","status":"running","crashes":0,)"
            R"("healthy":true})");
  EXPECT_TRUE(json["services"][1]["healthy"].is_null());
  EXPECT_TRUE(json["services"][3]["status"].is_null());
  EXPECT_TRUE(asJson(std::nullopt).is_null());
}

TEST(HealthReportTest, AMonitoringSystemGetsMetricsByTheirTypes) {
  Dictionary only{{kHealthServices, Dictionary{{"a\"\\\nb", service("n", 1, 2)}}},
                  {kHealthCrashLimit, 3}};
  EXPECT_EQ(asOpenMetrics(healthReport(only)),
            "# TYPE servicemanager_ready_to_report gauge\n"
            "# HELP servicemanager_ready_to_report Whether the health reporter may rely on the "
            "rest.\n"
            "servicemanager_ready_to_report 0\n"
            "# TYPE servicemanager_crash_limit gauge\n"
            "# HELP servicemanager_crash_limit Forced stops at which a service is unhealthy.\n"
            "servicemanager_crash_limit 3\n"
            "# TYPE servicemanager_service_status stateset\n"
            "# HELP servicemanager_service_status How the service is.\n"
            "servicemanager_service_status{service=\"a\\\"\\\\\\nb\",name=\"n\","
            "servicemanager_service_status=\"unready\"} 0\n"
            "servicemanager_service_status{service=\"a\\\"\\\\\\nb\",name=\"n\","
            "servicemanager_service_status=\"running\"} 1\n"
            "servicemanager_service_status{service=\"a\\\"\\\\\\nb\",name=\"n\","
            "servicemanager_service_status=\"stopped\"} 0\n"
            "servicemanager_service_status{service=\"a\\\"\\\\\\nb\",name=\"n\","
            "servicemanager_service_status=\"updating\"} 0\n"
            "# TYPE servicemanager_service_forced_stops gauge\n"
            "# HELP servicemanager_service_forced_stops How often the service ended by itself "
            "since the health reporter last asked.\n"
            "servicemanager_service_forced_stops{service=\"a\\\"\\\\\\nb\",name=\"n\"} 2\n"
            "# TYPE servicemanager_service_healthy gauge\n"
            "# HELP servicemanager_service_healthy Whether the health reporter would be told that "
            "the service is healthy.\n"
            "# EOF\n");
  EXPECT_EQ(asOpenMetrics(std::nullopt), "# EOF\n");
  EXPECT_THAT(asOpenMetrics(healthReport(record())),
              HasSubstr("servicemanager_service_healthy{service=\"com.example.web\","
                        "name=\"com.example.web\"} 0\n"));
}

}  // namespace
