#include "Platform/Linux/Logging/BufferedLogSink.h"

#include <csignal>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include "Platform/Linux/Logging/SyslogLogSink.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Logging/HungDisk.h"
#include "Platform/Testing/Logging/LogReceiver.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

constexpr Duration kLongTime = std::chrono::minutes(1);

class BufferedLogSinkTest : public testing::Test {
 protected:
  // The sink's messages go to `written_`.
  std::unique_ptr<BufferedLogSink> makeSink(LogBuffer::Limits limits = {}) {
    return std::make_unique<BufferedLogSink>(disk_.makeSink(written_), limits);
  }

  static LogRecord record(std::string_view text) {
    return {"Ident", "com.vantor.test", ASL_LEVEL_INFO, text};
  }

  FakeLogSink written_;
  HungDisk disk_;
};

TEST_F(BufferedLogSinkTest, ItNeedsNoThreadUntilThereIsAMessage) {
  const auto sink = makeSink();
  EXPECT_EQ(sink->flush(kLongTime), 0U);
}

TEST_F(BufferedLogSinkTest, TheEndWritesWhatIsBuffered) {
  std::vector<std::string> texts;
  {
    const auto sink = makeSink();
    for (int i = 0; i < 1000; ++i) {
      texts.push_back(std::to_string(i));
      ASSERT_TRUE(sink->write(record(texts.back())));
    }
  }
  EXPECT_EQ(written_.texts(), texts);
}

TEST_F(BufferedLogSinkTest, AHungDiskHoldsUpNoCaller) {
  const auto sink = makeSink();
  disk_.hang();
  ASSERT_TRUE(sink->write(record("hung")));
  disk_.awaitWriter();
  // Each of these would hang here if it waited for the disk.
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(sink->write(record("behind it")));
  std::jthread([&] { EXPECT_TRUE(sink->write(record("beside it"))); }).join();
  EXPECT_EQ(sink->flush(1ms), 102U);
  EXPECT_THAT(written_.texts(), IsEmpty());
  disk_.goOn();
  EXPECT_EQ(sink->flush(kLongTime), 0U);
  EXPECT_EQ(written_.texts().front(), "hung");
  EXPECT_EQ(written_.texts().back(), "beside it");
}

TEST_F(BufferedLogSinkTest, DroppedMessagesAreCountedOnceBeforeTheNext) {
  const std::size_t cost = LogBuffer::costOf(record("1"));
  const auto sink = makeSink({.bytes = 3 * cost, .reserve = 0});
  SystemLog log(*sink, "Ident");
  const auto client = log.asl_open("Ident", "com.vantor.test", 0);
  const auto write = [&](const char* text) { log.asl_log(client.get(), ASL_LEVEL_INFO, text); };
  disk_.hang();
  write("1");
  disk_.awaitWriter();
  write("2");
  write("3");
  for (int i = 0; i < 7; ++i) write("-");
  EXPECT_EQ(log.dropped(), 7U);
  disk_.goOn();
  ASSERT_EQ(sink->flush(kLongTime), 0U);
  write("4");
  ASSERT_EQ(sink->flush(kLongTime), 0U);
  write("5");
  ASSERT_EQ(sink->flush(kLongTime), 0U);
  EXPECT_THAT(written_.texts(), ElementsAre("1", "2", "3", "7 messages were lost here.", "4", "5"));
  EXPECT_EQ(written_.messages()[3].level, ASL_LEVEL_WARNING);
  EXPECT_EQ(log.dropped(), 0U);
}

TEST_F(BufferedLogSinkTest, AnErrorIsKeptAndTellsWhatWasDroppedBeforeIt) {
  const auto sink = makeSink({.bytes = 4096, .reserve = 2048});
  SystemLog log(*sink, "program");
  disk_.hang();
  log.asl_log(nullptr, ASL_LEVEL_INFO, "hung");
  disk_.awaitWriter();
  while (log.dropped() < 3) log.asl_log(nullptr, ASL_LEVEL_INFO, "-");
  log.asl_log(nullptr, ASL_LEVEL_ERR, "an error");
  EXPECT_EQ(log.dropped(), 0U);
  log.asl_log(nullptr, ASL_LEVEL_INFO, "-");
  EXPECT_EQ(log.dropped(), 1U);
  disk_.goOn();
  ASSERT_EQ(sink->flush(kLongTime), 0U);
  auto texts = written_.texts();
  std::erase(texts, "-");
  EXPECT_THAT(texts, ElementsAre("hung", "3 messages were lost here.", "an error"));
}

TEST_F(BufferedLogSinkTest, MessagesWaitWhileTheReceiverHasNoRoom) {
  TemporaryLogFolder folder;
  LogReceiver receiver(folder.path("socket"));
  BufferedLogSink sink(SyslogLogSink::make(folder.path("socket")).value());
  constexpr std::size_t kMessages = 5000;  // more than any receiver has room for
  for (std::size_t i = 0; i < kMessages; ++i) ASSERT_TRUE(sink.write(record("text")));
  EXPECT_GT(sink.flush(1ms), 0U);
  std::size_t received = 0;
  while (received < kMessages) received += receiver.take().size();
  EXPECT_EQ(sink.flush(kLongTime), 0U);
  EXPECT_EQ(sink.lost(), 0U);
}

TEST_F(BufferedLogSinkTest, TheEndBesideAReceiverWithoutRoomIsBounded) {
  TemporaryLogFolder folder;
  const LogReceiver receiver(folder.path("socket"));
  const auto begin = std::chrono::steady_clock::now();
  {
    BufferedLogSink sink(SyslogLogSink::make(folder.path("socket")).value());
    for (int i = 0; i < 5000; ++i) ASSERT_TRUE(sink.write(record("text")));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
}

TEST_F(BufferedLogSinkTest, MessagesThatTheOtherSinkRefusesAreCountedToo) {
  const auto sink = makeSink();
  written_.fail();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(sink->write(record("lost")));
  ASSERT_EQ(sink->flush(kLongTime), 0U);
  EXPECT_EQ(sink->lost(), 5U);
  EXPECT_EQ(written_.refused(), 5U);
  written_.recover();
  ASSERT_TRUE(sink->write(record("kept")));
  ASSERT_EQ(sink->flush(kLongTime), 0U);
  EXPECT_THAT(written_.texts(), ElementsAre("5 messages were lost here.", "kept"));
  EXPECT_EQ(sink->lost(), 0U);
}

TEST_F(BufferedLogSinkTest, TheEndReportsWhatTheOtherSinkHasRefused) {
  {
    const auto sink = makeSink();
    written_.fail();
    ASSERT_TRUE(sink->write(record("lost")));
    ASSERT_EQ(sink->flush(kLongTime), 0U);
    written_.recover();
  }
  EXPECT_THAT(written_.texts(), ElementsAre("1 message was lost here."));
}

TEST_F(BufferedLogSinkTest, TheEndBesideAHungDiskIsBounded) {
  auto sink = makeSink();
  disk_.hang();
  ASSERT_TRUE(sink->write(record("hung")));
  ASSERT_TRUE(sink->write(record("never written")));
  disk_.awaitWriter();
  const auto begin = std::chrono::steady_clock::now();
  sink.reset();
  const auto time = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(time, BufferedLogSink::kEndTime);
  EXPECT_LT(time, 30s);  // It would take for ever without its bound.
  disk_.goOn();
  disk_.awaitRelease();  // The thread lets the other sink go.
  EXPECT_THAT(written_.texts(), ElementsAre("hung"));
}

TEST_F(BufferedLogSinkTest, ItsThreadBlocksAllSignalsAndDoesNotPreempt) {
  struct ThreadFacts {
    bool blocksSignals = false;
    int policy = -1;
  };
  class ThreadSink final : public LogSink {
   public:
    explicit ThreadSink(ThreadFacts& facts) : facts_(facts) {}
    Result<void> write(const LogRecord&) override {
      sigset_t mask;
      ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
      facts_.blocksSignals = true;
      for (const int signal : {SIGTERM, SIGINT, SIGCHLD, SIGHUP, SIGUSR1, SIGPIPE, SIGXFSZ})
        facts_.blocksSignals &= sigismember(&mask, signal) == 1;
      facts_.policy = ::sched_getscheduler(0);
      return {};
    }

   private:
    ThreadFacts& facts_;
  };
  ThreadFacts facts;
  sigset_t before;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
  {
    BufferedLogSink sink(std::make_unique<ThreadSink>(facts));
    ASSERT_TRUE(sink.write(record("text")));
    sigset_t after;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
  }
  EXPECT_TRUE(facts.blocksSignals);
  EXPECT_EQ(facts.policy,
            ::sched_getscheduler(0) == SCHED_OTHER ? SCHED_BATCH : ::sched_getscheduler(0));
}

// For ThreadSanitizer: writers, flushes and questions at once, while the disk hangs and goes on.
TEST_F(BufferedLogSinkTest, ThreadsAtOnceLoseNoMessageUncounted) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 2000;
  std::uint64_t counted = 0;
  {
    const auto sink = makeSink({.bytes = 20'000, .reserve = 2000});
    SystemLog log(*sink, "program");
    {
      std::vector<std::jthread> threads;
      for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
          for (int i = 0; i < kMessages; ++i)
            log.asl_log(nullptr, i % 10 == 0 ? ASL_LEVEL_ERR : ASL_LEVEL_DEBUG,
                        stringWithFormat("%d %d", thread, i));
        });
      }
      threads.emplace_back([&] {
        for (int i = 0; i < 50; ++i) {
          disk_.hang();
          std::this_thread::yield();
          disk_.goOn();
          sink->flush(1us);
          static_cast<void>(sink->lost() + sink->progress()->waiting());
        }
      });
    }
    ASSERT_EQ(sink->flush(kLongTime), 0U);
    counted = log.dropped();
  }
  std::size_t arrived = 0;
  std::vector<int> last(kThreads, -1);
  for (const std::string& text : written_.texts()) {
    if (text.ends_with("lost here.")) {
      // The end reports again what had been counted by then.
      counted += std::stoull(text);
      continue;
    }
    ++arrived;
    const auto thread = static_cast<std::size_t>(std::stoi(text));
    const int number = std::stoi(text.substr(2));
    EXPECT_GT(number, last[thread]) << "of thread " << thread;
    last[thread] = number;
  }
  const std::uint64_t reportedAtTheEnd =
      written_.texts().back().ends_with("lost here.") ? std::stoull(written_.texts().back()) : 0;
  EXPECT_EQ(arrived + counted - reportedAtTheEnd, static_cast<std::size_t>(kThreads * kMessages));
}

}  // namespace
}  // namespace platform
