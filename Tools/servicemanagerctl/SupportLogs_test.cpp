#include "Tools/servicemanagerctl/SupportLogs.h"

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

using namespace platform;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

std::string logLine(const std::string& ident, const std::string& facility,
                    const std::string& message) {
  return fmt::format("2026-01-02T03:04:05.678901Z host {}[7] ({}) <Info> {}\n", ident, facility,
                     message);
}

TEST(SupportLogs, TheLinesOfServicesAreDropped) {
  const std::string own = logLine("ORBServiceManager", "com.vantor.hostagent", "of the daemon") +
                          logLine("Vantor Distant Object", "com.vantor.hostagent.lib", "of it") +
                          logLine("jobhost", "user", "of the job host");
  EXPECT_EQ(ownLinesOf(logLine("agent", "user", "the password is secret (com.vantor.x) <") + own +
                       logLine("jobhosts", "user", "secret") + "jobhost[7] (user) <Info> torn\n"),
            own);
}

TEST(SupportLogs, AnOlderFileIsReadLikeTheCurrentOne) {
  const TemporaryFolder folder;
  const std::string path = folder.write("system.log", logLine("jobhost", "user", "new"));
  folder.write("system.log.1", logLine("agent", "user", "secret") + "torn");
  const auto parts = supportLogFiles(path);
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_THAT(parts[0].content, HasSubstr("new"));
  EXPECT_EQ(parts[1].content, "");
  EXPECT_FALSE(parts[1].whyMissing);
}

std::string journalEntry(const std::string& message) {
  return R"({"__REALTIME_TIMESTAMP":"1","SYSLOG_IDENTIFIER":"jobhost","_PID":"7","MESSAGE":")" +
         message + "\"}";
}

TEST(SupportLogs, ASecretOfSeveralLinesIsLeftOut) {
  EXPECT_EQ(supportLineOf(journalEntry(R"(return switchkey value \"one\nsecret\" of type \"a\")")),
            "1970-01-01T00:00:00.000001Z jobhost[7] <Info> return switchkey value \"(left out)\" "
            "of type \"a\"\n");
  EXPECT_THAT(
      *supportLineOf(journalEntry(
          R"(Unable to submit job: {\n  EnvironmentVariables = {\n    KEY = secret;\n  };\n})")),
      AllOf(HasSubstr("Unable to submit job: {\\n  EnvironmentVariables (left out)\n"),
            Not(HasSubstr("secret"))));
  EXPECT_EQ(supportLineOf("-- Boot --"), std::nullopt);
}

// A journalctl of the test's is found first.
class SupportJournal : public testing::Test {
 protected:
  SupportJournal() { setPath(folder_.path() + ":" + before_); }
  ~SupportJournal() override { setPath(before_); }

  void prints(const std::string& output, int status) {
    folder_.write("output", output);
    const std::string program = folder_.write(
        "journalctl",
        fmt::format("#!/bin/sh\necho \"$*\" > {0}/arguments\ncat {0}/output\nexit {1}\n",
                    folder_.path(), status));
    std::filesystem::permissions(program, std::filesystem::perms(0755));
  }

  static void setPath(const std::string& value) { ::setenv("PATH", value.c_str(), 1); }

  const std::string before_ = std::getenv("PATH");
  const TemporaryFolder folder_;
};

TEST_F(SupportJournal, OnlyLinesThatTheProgramsSentThemselvesAreAskedFor) {
  prints(journalEntry("hello") + "\n", 0);
  std::filesystem::create_directories(folder_.path("run/vantor"));
  EXPECT_THAT(supportJournal(folder_.path()).content, HasSubstr("jobhost[7] <Info> hello\n"));
  const std::string user = std::to_string(::geteuid());
  EXPECT_THAT(
      contentOfFile(folder_.path("arguments")),
      HasSubstr("_COMM=servicemanagerd _UID=" + user +
                " _TRANSPORT=journal + _COMM=jobhost _UID=" + user + " _TRANSPORT=journal\n"));
}

TEST_F(SupportJournal, TheNewestLinesAreKept) {
  std::string output;
  const std::string text(64 * 1024, 'x');
  for (int i = 0; i < 400; ++i)
    output += journalEntry(fmt::format("{} number {}.", text, i)) + "\n";
  prints(output, 0);
  const SupportPart part = supportJournal(folder_.path());
  EXPECT_FALSE(part.whyMissing);
  EXPECT_GT(part.content.size(), 7 * kMebibyte);
  EXPECT_LE(part.content.size(), 8 * kMebibyte);
  EXPECT_TRUE(part.content.starts_with("1970-01-01T"));
  EXPECT_TRUE(part.content.ends_with(" number 399.\n"));
}

TEST_F(SupportJournal, AFailureIsNoContent) {
  for (const int status : {1, 3}) {
    prints(journalEntry("hello") + "\n", status);
    const SupportPart part = supportJournal(folder_.path());
    EXPECT_EQ(part.content, "");
    EXPECT_EQ(part.whyMissing, "journalctl failed");
  }
}

TEST_F(SupportJournal, AJournalWithoutLinesIsMissing) {
  prints("", 0);
  EXPECT_EQ(supportJournal(folder_.path()).whyMissing,
            "it has none of the product that this user may read");
}

}  // namespace
