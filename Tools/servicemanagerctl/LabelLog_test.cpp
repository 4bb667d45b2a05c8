#include "Tools/servicemanagerctl/LabelLog.h"

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tools/servicemanagerctl/JournalSource.h"
#include "Tools/servicemanagerctl/LogFileSource.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class LabelLogTest : public testing::Test {
 protected:
  LabelLogTest() {
    configuration_.root = folder_.path();
    configuration_.logSink = platform::PlatformConfiguration::LogSink::kFile;
  }

  // Second `second` of one minute.
  static std::string time(int second) {
    return "2026-01-02T03:04:" + std::string(second < 10 ? "0" : "") + std::to_string(second) +
           ".000000Z";
  }
  void log(int second, const std::string& message, const std::string& file = "log/system.log") {
    append(file, time(second) + " host Manager[1] (facility) <Info> " + message + "\n");
  }
  void print(int second, const std::string& label, const std::string& line) {
    append("log/services/" + label + ".log", time(second) + " " + line + "\n");
  }
  void append(const std::string& file, const std::string& text) {
    const std::filesystem::path path = folder_.path(file);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::app) << text;
  }

  static std::vector<std::string> messages(const platform::Result<std::vector<LogEntry>>& entries) {
    std::vector<std::string> texts;
    EXPECT_TRUE(entries);
    if (!entries) return texts;
    for (const LogEntry& entry : *entries) texts.push_back(entry.message);
    return texts;
  }

  platform::TemporaryFolder folder_;
  platform::PlatformConfiguration configuration_;
};

TEST_F(LabelLogTest, LinesAboutAServiceAndItsOutputAreMergedInTime) {
  log(1, "starts a");
  log(2, "starts b");
  log(4, "a has ended");
  print(3, "a", "hello");
  print(3, "b", "not this");
  EXPECT_THAT(messages(LabelLog(configuration_, {.labels = {"a"}}).read()),
              ElementsAre("starts a", "hello", "a has ended"));
}

TEST_F(LabelLogTest, AServicesOwnLinesMayComeBeforeTheLineAboutItsStart) {
  append("log/system.log", time(1) + " host agent[7] (user) <Notice> at work\n" + time(1) +
                               " host jobhost[1] (user) <Info> job \"a\": started process 7\n");
  EXPECT_THAT(messages(LabelLog(configuration_, {.labels = {"a"}}).read()),
              ElementsAre("at work", "job \"a\": started process 7"));
}

TEST_F(LabelLogTest, RotatedFilesComeFirst) {
  log(1, "first a", "log/system.log.2");
  log(2, "second a", "log/system.log.1");
  log(3, "third a");
  append("log/services/a.log.1", time(0) + " older\n");
  EXPECT_THAT(messages(LabelLog(configuration_, {.labels = {"a"}}).read()),
              ElementsAre("older", "first a", "second a", "third a"));
  EXPECT_THAT(messages(LabelLog(configuration_, {.labels = {"a"}}).read(2)),
              ElementsAre("second a", "third a"));
}

TEST_F(LabelLogTest, NewLinesFollowAlsoInFilesThatAppearLater) {
  log(1, "starts a");
  LabelLog followed(configuration_, {.labels = {"a"}});
  EXPECT_THAT(messages(followed.read()), ElementsAre("starts a"));
  EXPECT_THAT(messages(followed.readNew()), IsEmpty());
  print(3, "a", "printed");
  log(2, "a is up");
  EXPECT_THAT(messages(followed.readNew()), ElementsAre("a is up", "printed"));
  append("log/services/a.log", time(4) + " half");
  EXPECT_THAT(messages(followed.readNew()), IsEmpty());
  append("log/services/a.log", " a line\n");
  EXPECT_THAT(messages(followed.readNew()), ElementsAre("half a line"));
}

TEST_F(LabelLogTest, ARotationWhileFollowingLosesNoLine) {
  LabelLog followed(configuration_, {.labels = {"a"}});
  print(1, "a", "one");
  EXPECT_THAT(messages(followed.read()), ElementsAre("one"));
  print(2, "a", "two");
  const std::string path = folder_.path("log/services/a.log");
  std::filesystem::rename(path, path + ".1");
  print(3, "a", "three");
  std::vector<std::string> seen = messages(followed.readNew());
  for (const std::string& text : messages(followed.readNew())) seen.push_back(text);
  EXPECT_THAT(seen, ElementsAre("two", "three"));
}

// A member of the product's group may read the journal, and not the files.
TEST_F(LabelLogTest, ASourceThatMayNotBeReadIsLeftOut) {
  class Forbidden final : public LogSource {
   public:
    platform::Result<std::vector<LogEntry>> read(LogFilter&, std::size_t) override {
      return denied();
    }
    platform::Result<std::vector<LogEntry>> readNew(LogFilter&) override { return denied(); }

   private:
    static platform::Result<std::vector<LogEntry>> denied() {
      return std::unexpected(platform::Error{platform::ErrorCode::kDenied, EACCES, "a file"});
    }
  };
  log(1, "starts a");
  std::vector<std::unique_ptr<LogSource>> sources;
  sources.push_back(std::make_unique<Forbidden>());
  EXPECT_FALSE(LabelLog(std::move(sources), {}).read());
  sources.clear();
  sources.push_back(std::make_unique<Forbidden>());
  sources.push_back(
      std::make_unique<LogFileSource>(folder_.path("log/system.log"), entryInLogLine));
  LabelLog read(std::move(sources), {.labels = {"a"}});
  EXPECT_THAT(messages(read.read()), ElementsAre("starts a"));
  EXPECT_TRUE(read.readNew());
}

TEST_F(LabelLogTest, NoFilesAreAnEmptyLog) {
  EXPECT_THAT(messages(LabelLog(configuration_, {.labels = {"a"}}).read()), IsEmpty());
}

TEST(JournalArgumentsTest, SelectTheProgramsAndTheOutputOfTheLabels) {
  const auto all = journalArguments({"a", "b"}, /*hasLog=*/true, {.labels = {"a", "b"}});
  EXPECT_THAT(all, Contains("_COMM=servicemanagerd"));
  EXPECT_THAT(all, Contains("_COMM=jobhost"));
  EXPECT_THAT(all, Contains("SYSLOG_IDENTIFIER=b"));
  EXPECT_THAT(all, Not(Contains(StartsWith("--since"))));
  const auto output = journalArguments(
      {"a"}, /*hasLog=*/false,
      {.labels = {"a"}, .level = 4, .since = platform::WallTime(std::chrono::seconds(7))});
  EXPECT_THAT(output, Not(Contains("_COMM=jobhost")));
  EXPECT_THAT(output, Contains("--since=@7"));
  EXPECT_THAT(output, Contains("--priority=4"));
}

}  // namespace
