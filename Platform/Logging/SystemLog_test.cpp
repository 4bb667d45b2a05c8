#include "Platform/Logging/SystemLog.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Logging/NSLog.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Message = FakeLogSink::Message;

class SystemLogTest : public testing::Test {
 protected:
  FakeLogSink sink_;
  SystemLog log_{sink_, "servicemanagerd"};
};

TEST_F(SystemLogTest, AMessageHasTheNamesOfItsClient) {
  const auto client = log_.asl_open("ORBServiceManager", "com.vantor.hostagent", 0);
  log_.asl_log(client.get(), ASL_LEVEL_ERR, "text");
  EXPECT_THAT(sink_.messages(), ElementsAre(Message{"ORBServiceManager", "com.vantor.hostagent",
                                                    ASL_LEVEL_ERR, "text"}));
}

TEST_F(SystemLogTest, PercentSignsAreWrittenUnchanged) {
  log_.asl_log(nullptr, ASL_LEVEL_ERR, "50% %s %n %@");
  EXPECT_THAT(sink_.texts(), ElementsAre("50% %s %n %@"));
}

TEST_F(SystemLogTest, ANullClientIsTheProgram) {
  log_.asl_log(nullptr, ASL_LEVEL_ERR, "text");
  EXPECT_THAT(sink_.messages(),
              ElementsAre(Message{"servicemanagerd", "user", ASL_LEVEL_ERR, "text"}));
}

TEST_F(SystemLogTest, ClosingNoClientDoesNothing) {
  log_.asl_close(nullptr);
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_F(SystemLogTest, NamesHaveALimit) {
  const std::string longest(SystemLog::kMaximumNameSize, 'x');
  EXPECT_NE(log_.asl_open(longest, longest, 0), nullptr);
  EXPECT_EQ(log_.asl_open(longest + "x", "f", 0), nullptr);
  EXPECT_EQ(log_.asl_open("i", longest + "x", 0), nullptr);
}

TEST_F(SystemLogTest, MessagesHaveALimit) {
  const std::string longest(SystemLog::kMaximumMessageSize, 'x');
  log_.asl_log(nullptr, ASL_LEVEL_ERR, longest);
  log_.asl_log(nullptr, ASL_LEVEL_ERR, longest + "y");
  EXPECT_THAT(sink_.texts(), ElementsAre(longest, longest + " (cut, 1048577 bytes in all)"));
}

TEST_F(SystemLogTest, AMessageIsCutBetweenCharacters) {
  const std::string most(SystemLog::kMaximumMessageSize - 2, 'x');
  log_.asl_log(nullptr, ASL_LEVEL_ERR, most + "\u20ac");
  EXPECT_THAT(sink_.texts(), ElementsAre(most + " (cut, 1048577 bytes in all)"));
}

TEST_F(SystemLogTest, LevelsOutsideTheRangeCountAsTheNearest) {
  for (const int level : {-1, 0, 7, 8}) log_.asl_log(nullptr, level, "text");
  std::vector<AslLevel> levels;
  for (const Message& message : sink_.messages()) levels.push_back(message.level);
  EXPECT_THAT(levels,
              ElementsAre(ASL_LEVEL_EMERG, ASL_LEVEL_EMERG, ASL_LEVEL_DEBUG, ASL_LEVEL_DEBUG));
}

TEST(SystemLogLevelTest, LessSevereMessagesThanTheMaximumAreNotWritten) {
  FakeLogSink sink;
  SystemLog log(sink, "program", ASL_LEVEL_WARNING);
  log.asl_log(nullptr, ASL_LEVEL_WARNING, "warning");
  log.asl_log(nullptr, ASL_LEVEL_NOTICE, "notice");
  log.asl_log(nullptr, 99, "debug");
  EXPECT_THAT(sink.texts(), ElementsAre("warning"));
}

TEST(SystemLogLevelTest, MessagesThatAreNotWrittenAreNotLost) {
  FakeLogSink sink;
  SystemLog log(sink, "program", ASL_LEVEL_WARNING);
  sink.fail();
  log.asl_log(nullptr, ASL_LEVEL_NOTICE, "notice");
  EXPECT_EQ(log.dropped(), 0U);
}

TEST_F(SystemLogTest, LostMessagesAreReportedOnceBeforeTheNext) {
  log_.asl_log(nullptr, ASL_LEVEL_ERR, "before");
  sink_.fail();
  for (int i = 0; i < 3; ++i) log_.asl_log(nullptr, ASL_LEVEL_ERR, "lost");
  EXPECT_EQ(log_.dropped(), 3U);
  sink_.recover();
  log_.asl_log(nullptr, ASL_LEVEL_ERR, "after");
  log_.asl_log(nullptr, ASL_LEVEL_ERR, "later");
  EXPECT_THAT(sink_.texts(), ElementsAre("before", "3 messages were lost here.", "after", "later"));
  EXPECT_EQ(sink_.messages()[1].level, ASL_LEVEL_WARNING);
  EXPECT_EQ(log_.dropped(), 0U);
}

TEST_F(SystemLogTest, ErrorsAndTheLossesBeforeThemAreUrgent) {
  struct UrgencySink final : LogSink {
    Result<void> write(const LogRecord& record) override {
      urgencies.push_back(record.isUrgent);
      return {};
    }
    std::vector<bool> urgencies;
  } sink;
  SystemLog log(sink, "program");
  for (const int level : {ASL_LEVEL_EMERG, ASL_LEVEL_ERR, ASL_LEVEL_WARNING, ASL_LEVEL_DEBUG})
    log.asl_log(nullptr, level, "text");
  EXPECT_THAT(sink.urgencies, ElementsAre(true, true, false, false));
  sink.urgencies.clear();
  log.countLost();
  log.asl_log(nullptr, ASL_LEVEL_ERR, "text");
  log.countLost();
  log.asl_log(nullptr, ASL_LEVEL_WARNING, "text");
  EXPECT_THAT(sink.urgencies, ElementsAre(true, true, false, false));
}

TEST_F(SystemLogTest, EachOutageIsReportedSeparately) {
  for (int outage = 0; outage < 2; ++outage) {
    sink_.fail();
    log_.asl_log(nullptr, ASL_LEVEL_ERR, "lost");
    sink_.recover();
    log_.asl_log(nullptr, ASL_LEVEL_ERR, "kept");
  }
  EXPECT_THAT(sink_.texts(),
              ElementsAre("1 message was lost here.", "kept", "1 message was lost here.", "kept"));
}

TEST_F(SystemLogTest, AnOutageCostsOneAttemptForEachMessage) {
  sink_.fail();
  for (int i = 0; i < 5; ++i) log_.asl_log(nullptr, ASL_LEVEL_ERR, "lost");
  EXPECT_EQ(sink_.refused(), 5U);
}

TEST_F(SystemLogTest, MessagesThatACallerDroppedAreReportedToo) {
  log_.countLost();
  log_.asl_log(nullptr, ASL_LEVEL_ERR, "text");
  EXPECT_THAT(sink_.texts(), ElementsAre("1 message was lost here.", "text"));
}

TEST(SystemLogEndTest, UnreportedLossesAreReportedAtTheEnd) {
  FakeLogSink sink;
  {
    SystemLog log(sink, "program");
    sink.fail();
    log.asl_log(nullptr, ASL_LEVEL_ERR, "lost");
    sink.recover();
  }
  EXPECT_THAT(sink.texts(), ElementsAre("1 message was lost here."));
}

TEST_F(SystemLogTest, ThreadsTogetherReportEveryLossOnce) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 200;
  sink_.fail();
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([this] {
        for (int i = 0; i < kMessages; ++i) log_.asl_log(nullptr, ASL_LEVEL_ERR, "lost");
      });
  }
  EXPECT_EQ(log_.dropped(), static_cast<std::uint64_t>(kThreads * kMessages));
  sink_.recover();
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([this] {
        for (int i = 0; i < kMessages; ++i) log_.asl_log(nullptr, ASL_LEVEL_ERR, "kept");
      });
  }
  EXPECT_EQ(sink_.count("800 messages were lost here."), 1U);
  EXPECT_EQ(sink_.count("lost here"), 1U);
  EXPECT_EQ(sink_.count("kept"), static_cast<std::size_t>(kThreads * kMessages));
}

TEST_F(SystemLogTest, NSLogWritesToStandardErrorAndTheLog) {
  FakeLogSink standardError;
  NSLog({log_, standardError}, "%s is deprecated. 100%%", "+[Client make]");
  EXPECT_THAT(sink_.messages(), ElementsAre(Message{"servicemanagerd", "user", ASL_LEVEL_WARNING,
                                                    "+[Client make] is deprecated. 100%"}));
  EXPECT_THAT(standardError.texts(), ElementsAre("+[Client make] is deprecated. 100%"));
  EXPECT_THAT(standardError.messagesOf("servicemanagerd"), testing::SizeIs(1));
}

TEST_F(SystemLogTest, NSLogReachesTheLogWithoutAStandardError) {
  FakeLogSink standardError;
  standardError.fail();
  NSLog({log_, standardError}, "text");
  EXPECT_THAT(sink_.texts(), ElementsAre("text"));
  EXPECT_EQ(log_.dropped(), 0U);
}

}  // namespace
}  // namespace platform
