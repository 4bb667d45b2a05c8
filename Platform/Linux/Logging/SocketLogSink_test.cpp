#include <filesystem>
#include <memory>
#include <source_location>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/Logging/JournalLogSink.h"
#include "Platform/Linux/Logging/SyslogLogSink.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Testing/Logging/LogReceiver.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const LogRecord kInfoRecord{"Ident", "com.vantor.test", ASL_LEVEL_INFO, "text"};

class SocketLogSinkTest
    : public testing::TestWithParam<Result<std::unique_ptr<LogSink>> (*)(std::string)> {
 protected:
  std::unique_ptr<LogSink> makeSink(const std::string& path) { return GetParam()(path).value(); }

  TemporaryLogFolder folder_;
  const std::string path_ = folder_.path("socket");
};

Result<std::unique_ptr<LogSink>> makeJournal(std::string path) {
  return JournalLogSink::make(std::move(path));
}
Result<std::unique_ptr<LogSink>> makeSyslog(std::string path) {
  return SyslogLogSink::make(std::move(path));
}
INSTANTIATE_TEST_SUITE_P(Journal, SocketLogSinkTest, testing::Values(&makeJournal));
INSTANTIATE_TEST_SUITE_P(Syslog, SocketLogSinkTest, testing::Values(&makeSyslog));

TEST_P(SocketLogSinkTest, AReceiverMayStartLater) {
  const auto sink = makeSink(path_);
  const auto refused = sink->write(kInfoRecord);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kNotFound);
  LogReceiver receiver(path_);
  EXPECT_TRUE(sink->write(kInfoRecord));
  EXPECT_THAT(receiver.take(), SizeIs(1));
}

TEST_P(SocketLogSinkTest, AReceiverThatReplacesALiveOneGetsTheMessages) {
  const auto sink = makeSink(path_);
  LogReceiver first(path_);
  ASSERT_TRUE(sink->write(kInfoRecord));
  LogReceiver second(path_);
  ASSERT_TRUE(sink->write(kInfoRecord));
  EXPECT_THAT(first.take(), SizeIs(1));
  EXPECT_THAT(second.take(), SizeIs(1));
}

TEST_P(SocketLogSinkTest, AReceiverThatWasKilledRefuses) {
  const auto sink = makeSink(path_);
  {
    LogReceiver receiver(path_);
  }
  ASSERT_TRUE(std::filesystem::is_socket(path_));
  const auto refused = sink->write(kInfoRecord);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kNotFound);
}

TEST_P(SocketLogSinkTest, MessagesThatAFullReceiverLosesAreReportedLater) {
  const auto sink = makeSink(path_);
  LogReceiver receiver(path_);
  SystemLog log(*sink, "program");
  std::uint64_t accepted = 0;
  for (; log.dropped() < 5 && accepted < 100'000; ++accepted)
    log.asl_log(nullptr, ASL_LEVEL_INFO, "text");
  ASSERT_EQ(log.dropped(), 5U);
  accepted -= 5;
  EXPECT_THAT(receiver.take(), SizeIs(accepted));
  log.asl_log(nullptr, ASL_LEVEL_INFO, "text");
  const auto datagrams = receiver.take();
  ASSERT_THAT(datagrams, SizeIs(2));
  EXPECT_THAT(datagrams[0].bytes, testing::HasSubstr("5 messages were lost here."));
  EXPECT_EQ(log.dropped(), 0U);
}

TEST_P(SocketLogSinkTest, AFullReceiverDiffersFromAMissingOne) {
  const auto sink = makeSink(path_);
  LogReceiver receiver(path_);
  Result<void> written;
  for (int i = 0; i < 100'000 && written; ++i) written = sink->write(kInfoRecord);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(written.error().osError, EAGAIN);
}

// An address holds 107 bytes.
TEST_P(SocketLogSinkTest, PathsOfAnyLengthWork) {
  for (const std::size_t size : {106U, 107U, 108U, 109U, 300U}) {
    const std::size_t folderSize = size - path_.size() - 1;
    std::filesystem::path folder = folder_.path("");
    for (std::size_t left = folderSize; left > 0;) {
      const std::size_t part = std::min<std::size_t>(left, left == 101 ? 99 : 100);
      folder /= std::string(part, 'd');
      left -= std::min(left, part + 1);
    }
    std::filesystem::create_directories(folder);
    const std::string path = folder.string() + "/socket";
    ASSERT_EQ(path.size(), size);
    LogReceiver receiver(path);
    const auto sink = makeSink(path);
    const auto written = sink->write(kInfoRecord);
    EXPECT_TRUE(written) << path.size() << ' ' << describe(written.error());
    EXPECT_THAT(receiver.take(), SizeIs(1)) << path.size();
  }
}

TEST_P(SocketLogSinkTest, AFolderThatIsMissingRefuses) {
  EXPECT_FALSE(makeSink(folder_.path("missing/socket"))->write(kInfoRecord));
  EXPECT_FALSE(makeSink(folder_.path(std::string(120, 'm') + "/socket"))->write(kInfoRecord));
  EXPECT_FALSE(makeSink(folder_.path(std::string(120, 'n')))->write(kInfoRecord));
}

TEST(JournalLogSinkTest, AnEntryFollowsTheJournalsProtocol) {
  using namespace std::string_literals;
  TemporaryLogFolder folder;
  LogReceiver receiver(folder.path("socket"));
  const auto sink = JournalLogSink::make(folder.path("socket")).value();
  ASSERT_TRUE(sink->write({"Ident", "com.vantor.test", ASL_LEVEL_ERR, "one"}));
  ASSERT_TRUE(sink->write({"Ident", "com.vantor.test", ASL_LEVEL_DEBUG, "a\nb"}));
  const std::string rest =
      "SYSLOG_FACILITY=3\nSYSLOG_IDENTIFIER=Ident\nVANTOR_FACILITY=com.vantor.test\n";
  const auto datagrams = receiver.take();
  ASSERT_THAT(datagrams, SizeIs(2));
  EXPECT_EQ(datagrams[0].bytes, "MESSAGE=one\nPRIORITY=3\n" + rest);
  EXPECT_EQ(datagrams[1].bytes, "MESSAGE\n\3\0\0\0\0\0\0\0a\nb\nPRIORITY=7\n"s + rest);
}

TEST(JournalLogSinkTest, KnownFieldsAreWritten) {
  TemporaryLogFolder folder;
  LogReceiver receiver(folder.path("socket"));
  const auto sink = JournalLogSink::make(folder.path("socket")).value();
  LogRecord record = kInfoRecord;
  record.fields = {.messageId = kServiceStartedId,
                   .label = "com.example.agent",
                   .process = 77,
                   .where = std::source_location::current()};
  ASSERT_TRUE(sink->write(record));
  const auto datagrams = receiver.take();
  ASSERT_THAT(datagrams, SizeIs(1));
  const auto fields = parseJournalEntry(datagrams[0].bytes);
  ASSERT_TRUE(fields);
  EXPECT_EQ(fields->at("MESSAGE_ID"), kServiceStartedId);
  EXPECT_EQ(fields->at("VANTOR_LABEL"), "com.example.agent");
  EXPECT_EQ(fields->at("VANTOR_PID"), "77");
  EXPECT_EQ(fields->at("CODE_FILE"), "SocketLogSink_test.cpp");
  EXPECT_EQ(fields->at("CODE_LINE"), std::to_string(record.fields.where.line()));
}

TEST(JournalLogSinkTest, AMessageTooLargeForADatagramIsASealedFile) {
  TemporaryLogFolder folder;
  LogReceiver receiver(folder.path("socket"));
  const auto sink = JournalLogSink::make(folder.path("socket")).value();
  const std::string text(SystemLog::kMaximumMessageSize, 'x');
  ASSERT_TRUE(sink->write({"Ident", "com.vantor.test", ASL_LEVEL_ERR, text}));
  const auto datagrams = receiver.take();
  ASSERT_THAT(datagrams, SizeIs(1));
  EXPECT_THAT(datagrams[0].bytes, IsEmpty());
  EXPECT_TRUE(datagrams[0].file.has_value());
  EXPECT_TRUE(datagrams[0].sealed);
  const auto fields = parseJournalEntry(datagrams[0].file.value_or(""));
  ASSERT_TRUE(fields);
  EXPECT_EQ(fields->at("MESSAGE"), text);
  EXPECT_EQ(fields->at("VANTOR_FACILITY"), "com.vantor.test");
}

TEST(SyslogLogSinkTest, AMessageTooLargeForADatagramIsRefused) {
  TemporaryLogFolder folder;
  LogReceiver receiver(folder.path("socket"));
  const auto sink = SyslogLogSink::make(folder.path("socket")).value();
  const std::string text(SystemLog::kMaximumMessageSize, 'x');
  EXPECT_FALSE(sink->write({"Ident", "com.vantor.test", ASL_LEVEL_ERR, text}));
  EXPECT_THAT(receiver.take(), IsEmpty());
}

}  // namespace
}  // namespace platform
