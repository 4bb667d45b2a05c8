// Logger 2 with threads, on the real queues.

#include <atomic>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Testing/Logging/FakeLogSink.h"

namespace {

using namespace platform;
using testing::ElementsAre;

constexpr std::uint32_t kFirstThread = 7;
constexpr std::uint32_t kSecondThread = 8;

class ORBLogger2ThreadsTest : public testing::Test {
 protected:
  void drain() { queues_.reset(); }

  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  std::optional<AsioSerialQueues> queues_{std::in_place, 2};
  Logger2State state_{log_, *queues_};
  Logger2Binding binding_{state_};
};

TEST_F(ORBLogger2ThreadsTest, LinesOfOneThreadKeepTheirOrder) {
  constexpr int kThreads = 2;
  constexpr int kLines = 500;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([thread] {
        const std::uint32_t number = mach_thread_self();
        vantorlogger2_open(stringWithFormat("T%d", thread), number);
        for (int i = 0; i < kLines; ++i) vantorlogger2_log(number, ASL_LEVEL_DEBUG, "%d", i);
        vantorlogger2_close(number);
      });
    }
  }
  drain();
  for (int thread = 0; thread < kThreads; ++thread) {
    const auto messages = sink_.messagesOf(stringWithFormat("T%d", thread));
    ASSERT_EQ(messages.size(), static_cast<std::size_t>(kLines));
    for (int i = 0; i < kLines; ++i)
      EXPECT_EQ(messages[static_cast<std::size_t>(i)].text, std::to_string(i));
  }
}

TEST_F(ORBLogger2ThreadsTest, ConcurrentOpensAndClosesLoseNoLine) {
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([thread] {
        // Two threads share each number, so that one closes the queue to which the other logs.
        const auto number = static_cast<std::uint32_t>(thread / 2);
        for (int i = 0; i < kLines; ++i) {
          vantorlogger2_open("A", number);
          vantorlogger2_log(number, ASL_LEVEL_DEBUG, "line");
          vantorlogger2_close(number);
          vantorlogger2_log(number, ASL_LEVEL_DEBUG, "line");
        }
      });
    }
  }
  drain();
  EXPECT_EQ(sink_.count("line"), static_cast<std::size_t>(kThreads * kLines * 2));
  EXPECT_EQ(get_queue(0)->label(), "com.vantor.logger2.default.process");
  EXPECT_EQ(get_queue(1)->label(), "com.vantor.logger2.default.process");
}

// A write returns only when released.
class BlockingLogSink final : public LogSink {
 public:
  Result<void> write(const LogRecord& /*record*/) override {
    entered_.test_and_set();
    entered_.notify_all();
    released_.wait(false);
    return {};
  }
  void awaitWriter() { entered_.wait(false); }
  void release() {
    released_.test_and_set();
    released_.notify_all();
  }

 private:
  std::atomic_flag entered_;
  std::atomic_flag released_;
};

TEST(ORBLogger2BlockedTest, ABlockedSinkDelaysNoOtherThread) {
  BlockingLogSink sink;
  SystemLog log{sink, "program"};
  AsioSerialQueues queues{2};
  Logger2State state{log, queues};
  const Logger2Binding binding{state};
  vantorlogger2_open("Process", kFirstThread);
  vantorlogger2_log(kFirstThread, ASL_LEVEL_DEBUG, "stuck");
  sink.awaitWriter();
  // Each of these would hang here if it waited for the writer.
  vantorlogger2_log(kFirstThread, ASL_LEVEL_DEBUG, "behind it");
  vantorlogger2_open("Other", kSecondThread);
  vantorlogger2_log(kSecondThread, ASL_LEVEL_DEBUG, "beside it");
  vantorlogger2_close(kSecondThread);
  EXPECT_EQ(get_queue(kFirstThread)->label(), "com.vantor.logger2.workqueue.7");
  EXPECT_EQ(get_queue(kSecondThread)->label(), "com.vantor.logger2.default.process");
  sink.release();
}

TEST_F(ORBLogger2ThreadsTest, ALineDoesNotWaitForTheControlQueue) {
  vantorlogger2_init_default();
  const auto control = get_queue(kFirstThread);
  ASSERT_EQ(control->label(), "com.vantor.logger2.default");
  vantorlogger2_open("Process", kFirstThread);
  std::latch occupied{1};
  std::latch released{1};
  control->async([&] {
    occupied.count_down();
    released.wait();
  });
  occupied.wait();
  vantorlogger2_log(kFirstThread, ASL_LEVEL_DEBUG, "line");
  get_queue(kFirstThread)->sync([] {});
  EXPECT_THAT(sink_.texts(), ElementsAre("line"));
  released.count_down();
  control->sync([] {});  // The block uses objects that are destroyed here.
}

TEST_F(ORBLogger2ThreadsTest, AFailingSinkDelaysNoThread) {
  sink_.fail();
  for (int i = 0; i < 100; ++i) vantorlogger2_log(1, ASL_LEVEL_DEBUG, "lost");
  get_queue(1)->sync([] {});
  EXPECT_EQ(log_.dropped(), 100U);
  sink_.recover();
  vantorlogger2_log(1, ASL_LEVEL_DEBUG, "kept");
  drain();
  EXPECT_THAT(sink_.texts(), ElementsAre("100 messages were lost here.", "kept"));
}

}  // namespace
