#include "Tools/servicemanagerctl/JournalSource.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

using testing::ElementsAre;

// A program of the test takes the place of journalctl.
class JournalSourceTest : public testing::Test {
 protected:
  JournalSourceTest() { ::setenv("PATH", (folder_.path() + ":" + path_).c_str(), 1); }
  ~JournalSourceTest() override { ::setenv("PATH", path_.c_str(), 1); }

  void setProgram(const std::string& script) const {
    const std::string file = folder_.write("journalctl", "#!/bin/sh\n" + script);
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
  }

  static std::string line(const std::string& fields) {
    return R"({"__CURSOR":"c1","__REALTIME_TIMESTAMP":"1767323045678901",)" + fields + "}\n";
  }

  // The messages of the next entries, or the error.
  platform::Result<std::vector<std::string>> awaitNew() {
    const platform::Instant begin = platform::monotonicTime();
    while (platform::monotonicTime() - begin < std::chrono::minutes(1)) {
      const auto entries = source_.readNew(filter_);
      if (!entries) return std::unexpected(entries.error());
      std::vector<std::string> texts;
      for (const LogEntry& entry : *entries) texts.push_back(entry.message);
      if (!texts.empty()) return texts;
      ::poll(nullptr, 0, 1);
    }
    return std::vector<std::string>();
  }

  const std::string path_ = std::getenv("PATH");
  platform::TemporaryFolder folder_;
  JournalSource source_{{"a"}, /*hasLog=*/true, /*owner=*/0};
  LogFilter filter_{.labels = {"a"}};
};

TEST_F(JournalSourceTest, LinesOfAProcessNeedNotTheLineAboutItsStart) {
  folder_.write("host", line(R"("_UID":"0","_COMM":"jobhost","SYSLOG_IDENTIFIER":"jobhost",)"
                             R"("PRIORITY":"6","MESSAGE":"job \"a\": started process 7")"));
  folder_.write("all", line(R"("_UID":"5","_PID":"7","SYSLOG_IDENTIFIER":"agent",)"
                            R"("PRIORITY":"4","MESSAGE":"trouble")"));
  setProgram("cd '" + folder_.path() +
             "'; case \"$*\" in *--priority=4*) cat all;; *) cat host;; esac\n");
  filter_.level = 4;
  const auto entries = source_.read(filter_, LabelLog::kMostEntries);
  ASSERT_TRUE(entries) << platform::describe(entries.error());
  ASSERT_EQ(entries->size(), 1U);
  EXPECT_EQ(entries->front().message, "trouble");
}

TEST_F(JournalSourceTest, AnEndedFollowerIsStartedAgainBehindItsLastLine) {
  folder_.write("line", line(R"("_UID":"0","MESSAGE":"a ARGUMENT")"));
  setProgram("sed \"s/ARGUMENT/$2/\" '" + folder_.path("line") + "'\n");
  const auto first = awaitNew();
  ASSERT_TRUE(first) << platform::describe(first.error());
  EXPECT_THAT(*first, ElementsAre("a --lines=0"));
  const auto second = awaitNew();
  ASSERT_TRUE(second) << platform::describe(second.error());
  EXPECT_THAT(*second, ElementsAre("a --after-cursor=c1"));
}

TEST_F(JournalSourceTest, AFollowerThatEndsAtOnceIsAnError) {
  setProgram("exit 0\n");
  EXPECT_FALSE(awaitNew());
}

}  // namespace
