#pragma once

// The contract of every log sink, and that of sinks that write before they return. A test program
// instantiates them with a harness around its sink:
//   INSTANTIATE_TEST_SUITE_P(Fake, LogSinkContract, testing::Values(&makeFakeSinkHarness));

#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Logging/LogSink.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {

// A message as a reader of the log gets it.
struct ReceivedMessage {
  std::string ident;
  std::string facility;
  int level = -1;
  std::string text;

  bool operator==(const ReceivedMessage&) const = default;
};

// A sink and its destination.
class LogSinkHarness {
 public:
  virtual ~LogSinkHarness() = default;
  virtual LogSink& sink() = 0;
  // The messages since the last call.
  virtual std::vector<ReceivedMessage> take() = 0;
  // Removes the sink's destination until restore().
  virtual void remove() = 0;
  virtual void restore() = 0;
};

class LogSinkContract : public testing::TestWithParam<std::unique_ptr<LogSinkHarness> (*)()> {
 protected:
  bool write(std::string_view text) {
    return harness_->sink().write({"Ident", "com.vantor.test", ASL_LEVEL_INFO, text}).has_value();
  }

  std::vector<std::string> takeTexts() {
    std::vector<std::string> texts;
    for (ReceivedMessage& message : harness_->take()) texts.push_back(std::move(message.text));
    return texts;
  }

  std::unique_ptr<LogSinkHarness> harness_ = GetParam()();
};

TEST_P(LogSinkContract, AMessageArrivesWithAllItsParts) {
  ASSERT_TRUE(harness_->sink().write({"ORBServiceManager", "com.vantor.hostagent", ASL_LEVEL_ERR,
                                      "[main.cpp:12] no such service"}));
  EXPECT_THAT(harness_->take(), testing::ElementsAre(ReceivedMessage{
                                    "ORBServiceManager", "com.vantor.hostagent", ASL_LEVEL_ERR,
                                    "[main.cpp:12] no such service"}));
}

TEST_P(LogSinkContract, EveryLevelIsDistinguished) {
  for (int level = ASL_LEVEL_EMERG; level <= ASL_LEVEL_DEBUG; ++level) {
    ASSERT_TRUE(harness_->sink().write({"I", "f", static_cast<AslLevel>(level), "text"}));
    EXPECT_THAT(harness_->take(), testing::ElementsAre(ReceivedMessage{"I", "f", level, "text"}));
  }
}

TEST_P(LogSinkContract, AnyTextIsOneMessageAndIsReadBackUnchanged) {
  using namespace std::string_literals;
  for (const std::string& text : {
           ""s,
           " "s,
           "100%s %n %@"s,
           "two\nlines"s,
           "\n"s,
           "\r\n\t\v\f\x1b[31m\x7f"s,
           "a\0b"s,
           "back\\slash \\n \\x41 \\\\"s,
           "MESSAGE=forged\nPRIORITY=0"s,
           "<0>Jan  1 00:00:00 forged[1]: x"s,
           "Grüße, 漢字 🙂"s,
           "next\u0085line \u2028 \u2029"s,
           "not UTF-8: \xff\xc0\x80\xed\xa0\x80\xf4\x90\x80\x80 \xe2\x82"s,
           ") <Error> ] ["s,
       }) {
    ASSERT_TRUE(write(text)) << testing::PrintToString(text);
    EXPECT_THAT(takeTexts(), testing::ElementsAre(text));
  }
}

TEST_P(LogSinkContract, NamesCannotForgeMessages) {
  const ReceivedMessage strange{"<no asl_client>: [1]\nPRIORITY=0", "a) <Error> b\n\\", 6, "text"};
  ASSERT_TRUE(harness_->sink().write(
      {strange.ident, strange.facility, static_cast<AslLevel>(strange.level), strange.text}));
  EXPECT_THAT(harness_->take(), testing::ElementsAre(strange));
}

TEST_P(LogSinkContract, MessagesOfOneThreadKeepTheirOrder) {
  std::vector<std::string> written;
  std::vector<std::string> arrived;
  for (int i = 0; i < 50; ++i) {
    written.push_back(stringWithFormat("message %d", i));
    ASSERT_TRUE(write(written.back()));
    for (std::string& text : takeTexts()) arrived.push_back(std::move(text));
  }
  EXPECT_EQ(arrived, written);
}

TEST_P(LogSinkContract, ConcurrentWritesAreNeitherLostNorTorn) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 100;
  const std::string filling(300, 'x');
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kMessages; ++i) {
        // A refused message has not been written, so repeating it does not duplicate it.
        const std::string text = stringWithFormat("%d %d %@", thread, i, filling);
        while (!write(text)) std::this_thread::yield();
      }
    });
  }
  std::vector<std::vector<std::string>> arrived(kThreads);
  for (int count = 0; count < kThreads * kMessages;) {
    for (std::string& text : takeTexts()) {
      ++count;
      const auto thread = static_cast<std::size_t>(text.front() - '0');
      ASSERT_LT(thread, arrived.size()) << text;
      arrived[thread].push_back(std::move(text));
    }
    std::this_thread::yield();
  }
  for (std::jthread& thread : threads) thread.join();
  for (int thread = 0; thread < kThreads; ++thread)
    for (int i = 0; i < kMessages; ++i)
      EXPECT_EQ(arrived[static_cast<std::size_t>(thread)][static_cast<std::size_t>(i)],
                stringWithFormat("%d %d %@", thread, i, filling));
  EXPECT_THAT(takeTexts(), testing::IsEmpty());
}

TEST_P(LogSinkContract, ALongMessageArrivesWhole) {
  for (const std::size_t size : {4095U, 4096U, 65536U, 100'000U}) {
    std::string text(size, 'x');
    text.back() = 'y';
    ASSERT_TRUE(write(text)) << size;
    EXPECT_EQ(takeTexts(), std::vector<std::string>{text});
  }
}

class ImmediateLogSinkContract : public LogSinkContract {};

TEST_P(ImmediateLogSinkContract, WithoutItsDestinationItRefusesUntilThatIsBack) {
  ASSERT_TRUE(write("before"));
  EXPECT_THAT(takeTexts(), testing::ElementsAre("before"));
  harness_->remove();
  EXPECT_FALSE(write("lost"));
  EXPECT_FALSE(write("lost too"));
  harness_->restore();
  ASSERT_TRUE(write("after"));
  EXPECT_THAT(takeTexts(), testing::ElementsAre("after"));
}

}  // namespace platform
