#include "Platform/Linux/Logging/LogBuffer.h"

#include <chrono>
#include <source_location>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/SystemFacts/Thread.h"

namespace platform {
namespace {

using testing::ElementsAre;

LogRecord ordinaryRecord(std::string_view text) {
  return {"Ident", "com.vantor.test", ASL_LEVEL_ERR, text};
}

LogRecord urgentRecord(std::string_view text) {
  LogRecord record = ordinaryRecord(text);
  record.isUrgent = true;
  return record;
}

std::vector<std::string> textsOf(const LogBuffer::Batch& batch) {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < batch.size(); ++i) texts.emplace_back(batch[i].message);
  return texts;
}

// The buffer has room for exactly three of these.
const std::size_t kCost = LogBuffer::costOf(ordinaryRecord("four"));

TEST(LogBufferTest, AMessageComesOutAsItWentIn) {
  LogBuffer buffer({});
  LogRecord record = ordinaryRecord("text");
  record.time = WallTime(std::chrono::seconds(1'700'000'000));
  record.thread = 77;
  ASSERT_TRUE(buffer.add(record));
  LogBuffer::Batch batch;
  buffer.take(batch);
  EXPECT_TRUE(buffer.empty());
  ASSERT_EQ(batch.size(), 1U);
  EXPECT_EQ(batch[0].ident, "Ident");
  EXPECT_EQ(batch[0].facility, "com.vantor.test");
  EXPECT_EQ(batch[0].level, ASL_LEVEL_ERR);
  EXPECT_EQ(batch[0].message, "text");
  EXPECT_EQ(batch[0].time, record.time);
  EXPECT_EQ(batch[0].thread, 77U);
}

TEST(LogBufferTest, AMessageKeepsItsFields) {
  LogBuffer buffer({});
  LogRecord record = ordinaryRecord("text");
  record.fields = {.messageId = "id",
                   .label = "com.example.agent",
                   .process = 77,
                   .where = std::source_location::current()};
  ASSERT_TRUE(buffer.add(record));
  ASSERT_TRUE(buffer.add(ordinaryRecord("next")));
  LogBuffer::Batch batch;
  buffer.take(batch);
  EXPECT_EQ(batch[0].message, "text");
  EXPECT_STREQ(batch[0].fields.messageId, "id");
  EXPECT_EQ(batch[0].fields.label, "com.example.agent");
  EXPECT_EQ(batch[0].fields.process, 77);
  EXPECT_EQ(batch[0].fields.where.line(), record.fields.where.line());
  EXPECT_EQ(batch[1].message, "next");
  EXPECT_EQ(batch[1].fields.messageId, nullptr);
}

TEST(LogBufferTest, AMessageKeepsItsTimeAndThread) {
  LogBuffer buffer({});
  const auto before = std::chrono::time_point_cast<Duration>(std::chrono::system_clock::now());
  ASSERT_TRUE(buffer.add(ordinaryRecord("text")));
  const auto after = std::chrono::time_point_cast<Duration>(std::chrono::system_clock::now());
  LogBuffer::Batch batch;
  buffer.take(batch);
  EXPECT_GE(batch[0].time, before);
  EXPECT_LE(batch[0].time, after);
  EXPECT_EQ(batch[0].thread, mach_thread_self());
}

TEST(LogBufferTest, ItIsFullAtItsLimitAndNotBefore) {
  LogBuffer buffer({.bytes = 3 * kCost, .reserve = 0});
  EXPECT_TRUE(buffer.add(ordinaryRecord("one.")));
  EXPECT_TRUE(buffer.add(ordinaryRecord("two.")));
  EXPECT_FALSE(buffer.add(ordinaryRecord("three")));  // a byte more than there is room for
  EXPECT_TRUE(buffer.add(ordinaryRecord("4th.")));
  EXPECT_FALSE(buffer.add(ordinaryRecord("")));
  LogBuffer::Batch batch;
  buffer.take(batch);
  EXPECT_THAT(textsOf(batch), ElementsAre("one.", "two.", "4th."));
}

TEST(LogBufferTest, MessagesThatWereTakenOutOccupyItUntilTheyAreReleased) {
  LogBuffer buffer({.bytes = 2 * kCost, .reserve = 0});
  ASSERT_TRUE(buffer.add(ordinaryRecord("one.")));
  ASSERT_TRUE(buffer.add(ordinaryRecord("two.")));
  LogBuffer::Batch batch;
  buffer.take(batch);
  EXPECT_FALSE(buffer.add(ordinaryRecord("none")));
  buffer.release(LogBuffer::costOf(batch[0]));
  EXPECT_TRUE(buffer.add(ordinaryRecord("next")));
  EXPECT_FALSE(buffer.add(ordinaryRecord("none")));
}

TEST(LogBufferTest, UrgentMessagesHaveAReserve) {
  LogBuffer buffer({.bytes = 3 * kCost, .reserve = kCost});
  ASSERT_TRUE(buffer.add(ordinaryRecord("one.")));
  ASSERT_TRUE(buffer.add(ordinaryRecord("two.")));
  EXPECT_FALSE(buffer.add(ordinaryRecord("")));
  EXPECT_TRUE(buffer.add(urgentRecord("bad!")));
  EXPECT_FALSE(buffer.add(urgentRecord("")));
}

TEST(LogBufferTest, ABatchCanBeUsedAgain) {
  LogBuffer buffer({});
  LogBuffer::Batch batch;
  for (const std::string& text :
       {std::string("first"), std::string(200'000, 'x'), std::string("last")}) {
    ASSERT_TRUE(buffer.add(ordinaryRecord(text)));
    buffer.take(batch);
    EXPECT_THAT(textsOf(batch), ElementsAre(text));
    batch.clear();
    EXPECT_EQ(batch.size(), 0U);
  }
}

}  // namespace
}  // namespace platform
