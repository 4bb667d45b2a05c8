#include "Tools/servicemanagerctl/WatchReport.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Jobs/JobHistory.h"
#include "ServiceManager/ServiceManager/OperatorEvents.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Kind = OperatorEvent::Kind;

const WallTime kNoon =
    std::chrono::sys_days(std::chrono::January / 31 / 2026) + std::chrono::hours(12);
constexpr char kNoonText[] = "2026-01-31T12:00:00Z";

std::string textOf(OperatorEvent event, Reader reader = Reader::kOther) {
  event.time = kNoon;
  const auto line = lineOfEvent(factsOf(event), reader);
  return line ? line->text : "";
}

std::string jsonOfEvent(OperatorEvent event) {
  event.time = kNoon;
  const auto line = lineOfEvent(factsOf(event), Reader::kOther);
  return line ? dumpedLine(line->json) : "";
}

std::string lineOfJson(const std::string& rest) {
  return R"({"version":1,"event":)" + rest + "}\n";
}

const std::string kTimePart = R"(,"time":"2026-01-31T12:00:00Z",)";

TEST(WatchReportTest, AProcessIsALine) {
  const OperatorEvent runs{.kind = Kind::kService, .subject = "agent", .number = 4711};
  const OperatorEvent ended{.kind = Kind::kService, .subject = "agent"};
  EXPECT_EQ(textOf(runs), std::string(kNoonText) + "  agent  runs as process 4711\n");
  EXPECT_EQ(textOf(ended), std::string(kNoonText) + "  agent  ended\n");
  EXPECT_EQ(textOf(ended, Reader::kTerminal),
            std::string(kNoonText) + "  agent  \033[31mended\033[0m\n");
  EXPECT_EQ(jsonOfEvent(runs), lineOfJson("\"service\"" + kTimePart +
                                          R"("label":"agent","state":"running","pid":4711)"));
  EXPECT_EQ(jsonOfEvent(ended), lineOfJson("\"service\"" + kTimePart +
                                           R"("label":"agent","state":"ended","pid":null)"));
}

TEST(WatchReportTest, EachKindOfEventHasItsLine) {
  EXPECT_EQ(textOf({.kind = Kind::kSettings, .subject = "on"}),
            std::string(kNoonText) + "  setting on  has changed\n");
  EXPECT_EQ(jsonOfEvent({.kind = Kind::kSettings}),
            lineOfJson("\"settings\"" + kTimePart + R"("key":null)"));
  EXPECT_EQ(jsonOfEvent({.kind = Kind::kMode, .number = 2}),
            lineOfJson("\"mode\"" + kTimePart + R"("mode":"waiting")"));
  EXPECT_EQ(jsonOfEvent({.kind = Kind::kInstaller, .number = 1}),
            lineOfJson("\"installer\"" + kTimePart + R"("state":"begun")"));
  EXPECT_EQ(jsonOfEvent({.kind = Kind::kExtension, .subject = "wfk", .step = "isNotLoaded"}),
            lineOfJson("\"extension\"" + kTimePart +
                       R"("name":"wfk","state":"failed","step":"isNotLoaded")"));
  EXPECT_EQ(textOf({.kind = Kind::kExtension, .subject = "wfk"}),
            std::string(kNoonText) + "  extension wfk  is ready\n");
  EXPECT_EQ(jsonOfEvent({.kind = Kind::kEvaluation, .subject = "a", .number = 1}),
            lineOfJson("\"evaluation\"" + kTimePart + R"("label":"a","result":"wanted")"));
}

TEST(WatchReportTest, AMalformedEventIsNoLine) {
  const Value time = dateAt(kNoon);
  for (const Value& event :
       {Value(), Value("agent"), Value(Dictionary{{kFactEvent, kEventMode}}),
        Value(Dictionary{{kFactEvent, "unknown"}, {kFactEventTime, time}}),
        Value(Dictionary{{kFactEvent, kEventMode}, {kFactEventTime, time}}),
        Value(Dictionary{{kFactEvent, kEventSettings}, {kFactEventTime, Date{1e300}}}),
        Value(Dictionary{{kFactEvent, kEventService}, {kFactLabel, 1}, {kFactEventTime, time}})}) {
    EXPECT_FALSE(lineOfEvent(event, Reader::kOther));
  }
}

TEST(WatchReportTest, AHoleInTheStreamIsTold) {
  EXPECT_EQ(lineOfMissed(7, kNoon).text,
            std::string(kNoonText) + "  7 events were not read in time and are lost\n");
  EXPECT_EQ(dumpedLine(lineOfMissed(7, kNoon).json),
            lineOfJson("\"missed\"" + kTimePart + R"("count":7)"));
  EXPECT_EQ(dumpedLine(lineOfConnection("has gone", kNoon).json),
            lineOfJson("\"connection\"" + kTimePart + R"("state":"lost","why":"has gone")"));
  EXPECT_EQ(dumpedLine(lineOfConnection("", kNoon).json),
            lineOfJson("\"connection\"" + kTimePart + R"("state":"restored","why":null)"));
}

}  // namespace
