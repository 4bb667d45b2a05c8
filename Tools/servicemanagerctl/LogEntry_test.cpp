#include "Tools/servicemanagerctl/LogEntry.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using platform::WallTime;

const WallTime kLoggedAt =
    WallTime(std::chrono::sys_days(std::chrono::year(2026) / 1 / 2)) + 3h + 4min + 5s + 678901us;
constexpr char kLine[] =
    "2026-01-02T03:04:05.678901Z host Some\\x20Class[42] (com.vantor.hostagent) <Warning> "
    "[A.cpp:7] two\\nlines";

TEST(LogEntryTest, ALineOfTheLogHasItsParts) {
  EXPECT_EQ(entryInLogLine(kLine), (LogEntry{kLoggedAt, LogEntry::Source::kLog, "Some Class", 42, 4,
                                             "[A.cpp:7] two\nlines"}));
}

TEST(LogEntryTest, OtherLinesAreNone) {
  for (const char* const line : {"", "text", "2026-01-02T03:04:05.678901Z",
                                 "2026-13-02T03:04:05.678901Z h i[1] (f) <Info> m",
                                 "2026-01-02T03:04:05.678901Z h i[x] (f) <Info> m",
                                 "2026-01-02T03:04:05.678901Z h i[1] (f) <Loud> m",
                                 "9999-01-02T03:04:05.678901Z h i[1] (f) <Info> m"}) {
    EXPECT_EQ(entryInLogLine(line), std::nullopt) << line;
  }
}

TEST(LogEntryTest, AServicesOutputHasItsLabel) {
  const LogEntry expected{kLoggedAt, LogEntry::Source::kOutput, "com.example.a", 0, 6, "hello\\"};
  EXPECT_EQ(entryInOutputLine("2026-01-02T03:04:05.678901Z hello\\\\", "com.example.a"), expected);
  EXPECT_EQ(asText(expected), "2026-01-02T03:04:05.678901Z com.example.a: hello\\\\\n");
}

TEST(LogEntryTest, TheJournalHasTheSameEntries) {
  const std::string fields =
      R"("__REALTIME_TIMESTAMP":"1767323045678901","_PID":"42","PRIORITY":"4","_UID":"5",)";
  EXPECT_EQ(entryInJournal("{" + fields + R"("SYSLOG_IDENTIFIER":"Some Class",)" +
                               R"("MESSAGE":"[A.cpp:7] two\nlines","VANTOR_LABEL":"a"})",
                           {}, 5),
            (LogEntry{kLoggedAt, LogEntry::Source::kLog, "Some Class", 42, 4,
                      "[A.cpp:7] two\nlines", "a"}));
  EXPECT_EQ(entryInJournal("{" + fields + R"("SYSLOG_IDENTIFIER":"a","MESSAGE":[104,255],)" +
                               R"("_TRANSPORT":"stdout"})",
                           {"a"}, 5),
            (LogEntry{kLoggedAt, LogEntry::Source::kOutput, "a", 42, 4, "h\xff"}));
  EXPECT_EQ(entryInJournal("{", {}, 0), std::nullopt);
  EXPECT_EQ(entryInJournal("[]", {}, 0), std::nullopt);
  EXPECT_EQ(entryInJournal("{}", {}, 0), std::nullopt);
}

std::optional<LogEntry> entryOf(const std::string& fields) {
  return entryInJournal(
      R"({"__REALTIME_TIMESTAMP":"1767323045678901","_PID":"42","MESSAGE":"a",)" + fields + "}",
      {"a"}, /*owner=*/0);
}

TEST(LogEntryTest, OtherUsersForgeNoOutputOfAService) {
  const std::string output = R"("SYSLOG_IDENTIFIER":"a","_TRANSPORT":"stdout",)";
  for (const char* const own :
       {R"("_UID":"0")", R"("_UID":"7","_SYSTEMD_UNIT":"vantor-jobhost.service")",
        R"("_UID":"7","_SYSTEMD_UNIT":"vantor-a.service")",
        R"("_UID":"7","_SYSTEMD_UNIT":"vantor-a..abandons.service")"}) {
    EXPECT_EQ(entryOf(output + own)->source, LogEntry::Source::kOutput) << own;
  }
  for (const char* const forged :
       {R"("_UID":"7","_SYSTEMD_UNIT":"user@7.service")",
        R"("_UID":"7","_SYSTEMD_UNIT":"vantor-b.service")", R"("_SYSTEMD_UNIT":"")"}) {
    const auto entry = entryOf(output + forged);
    EXPECT_EQ(entry->source, LogEntry::Source::kLog) << forged;
    EXPECT_FALSE((LogFilter{.labels = {"a"}}.takes(*entry))) << forged;
  }
}

TEST(LogEntryTest, OtherUsersForgeNoLineAboutAService) {
  const LogFilter filter{.labels = {"a"}};
  EXPECT_TRUE(filter.takes(*entryOf(R"("SYSLOG_IDENTIFIER":"Manager","_UID":"0")")));
  EXPECT_FALSE(
      filter.takes(*entryOf(R"("SYSLOG_IDENTIFIER":"Manager","_UID":"7","VANTOR_LABEL":"a")")));
}

TEST(LogFilterTest, LearnsOnlyFromTheJobHost) {
  const auto learns = [](const std::string& fields) {
    LogFilter filter{.labels = {"a"}};
    auto entry = entryOf(R"("SYSLOG_IDENTIFIER":"jobhost",)" + fields);
    entry->message = "job \"a\": started process 7";
    filter.learn(*entry);
    return !filter.processes.empty();
  };
  EXPECT_TRUE(learns(R"("_UID":"0","_COMM":"jobhost")"));
  EXPECT_FALSE(learns(R"("_UID":"7","_COMM":"jobhost")"));
  EXPECT_FALSE(learns(R"("_UID":"0","_COMM":"agent")"));
}

TEST(LogEntryTest, ALabelIsNamedAsAWhole) {
  EXPECT_TRUE(mentions("job \"com.example.a\" ended", "com.example.a"));
  EXPECT_TRUE(mentions("evaluating com.example.a.", "com.example.a"));
  EXPECT_TRUE(mentions("com.example.ab com.example.a", "com.example.a"));
  EXPECT_FALSE(mentions("com.example.a.b", "com.example.a"));
  EXPECT_FALSE(mentions("com.example.a-b", "com.example.a"));
  EXPECT_FALSE(mentions("x.com.example.a", "com.example.a"));
  EXPECT_FALSE(mentions("", "com.example.a"));
}

TEST(LogFilterTest, SelectsLabelsLevelsAndTimes) {
  const LogEntry about{kLoggedAt, LogEntry::Source::kLog, "Manager", 1, 4, "starts a"};
  const LogEntry printed{kLoggedAt, LogEntry::Source::kOutput, "a", 0, 6, "b"};
  EXPECT_TRUE((LogFilter{.labels = {"a"}}.takes(about)));
  EXPECT_TRUE((LogFilter{.labels = {"a"}}.takes(printed)));
  EXPECT_FALSE((LogFilter{.labels = {"b"}}.takes(printed)));
  EXPECT_FALSE((LogFilter{.labels = {"Manager"}}.takes(about)));
  EXPECT_TRUE((LogFilter{}.takes(about)));
  EXPECT_TRUE((LogFilter{.labels = {"a"}, .level = 4}.takes(about)));
  EXPECT_FALSE((LogFilter{.labels = {"a"}, .level = 4}.takes(printed)));
  EXPECT_TRUE((LogFilter{.labels = {"a"}, .since = kLoggedAt}.takes(about)));
  EXPECT_FALSE((LogFilter{.labels = {"a"}, .since = kLoggedAt + 1us}.takes(about)));
}

TEST(LogFilterTest, LearnsTheProcessesOfAService) {
  LogFilter filter{.labels = {"a"}};
  const auto says = [&](const std::string& speaker, std::int64_t process, std::string message) {
    const LogEntry entry{kLoggedAt, LogEntry::Source::kLog, speaker, process,
                         6,         std::move(message)};
    filter.learn(entry);
    return filter.takes(entry);
  };
  EXPECT_FALSE(says("agent", 7, "too early"));
  EXPECT_TRUE(says("jobhost", 1, "job \"a\": started process 7"));
  EXPECT_TRUE(says("agent", 7, "at work"));
  EXPECT_FALSE(says("agent", 8, "at work"));
  EXPECT_TRUE(says("jobhost", 1, "job \"a\": process 8 of an earlier host taken over"));
  EXPECT_TRUE(says("agent", 8, "at work"));
  EXPECT_FALSE(says("jobhost", 1, "job \"b\": started process 7"));
  EXPECT_FALSE(says("other", 7, "at work"));
  EXPECT_FALSE(says("forger", 9, "job \"b\": started process 8"));
  EXPECT_TRUE(says("agent", 8, "still at work"));
}

TEST(LogEntryTest, JsonHasTheMessageAsItWasLogged) {
  const auto json = asJson(*entryInLogLine(kLine));
  EXPECT_EQ(json.dump(),
            R"({"time":"2026-01-02T03:04:05.678901Z","source":"log","speaker":"Some Class",)"
            R"("pid":42,"level":4,"message":"[A.cpp:7] two\nlines"})");
}

TEST(LogEntryTest, ALevelHasNamesAndANumber) {
  EXPECT_EQ(levelNamed("warning"), 4);
  EXPECT_EQ(levelNamed("Error"), 3);
  EXPECT_EQ(levelNamed("err"), 3);
  EXPECT_EQ(levelNamed("7"), 7);
  EXPECT_EQ(levelNamed("8"), std::nullopt);
  EXPECT_EQ(levelNamed(""), std::nullopt);
}

}  // namespace
