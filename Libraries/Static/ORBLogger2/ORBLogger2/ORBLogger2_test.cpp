#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Testing/Logging/FakeLogSink.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;
using Message = FakeLogSink::Message;

constexpr char kFacility[] = "com.vantor.hostagent";
constexpr std::uint32_t kThread = 7;
constexpr std::uint32_t kOther = 8;

// Queues that run nothing until told to, and record their end.
class HeldQueues final : public SerialQueues {
 public:
  ~HeldQueues() override { runPending(); }

  std::shared_ptr<SerialQueue> makeQueue(std::string label) override {
    made_.push_back(label);
    return std::make_shared<Queue>(*this, std::move(label));
  }

  void runPending() {
    while (!pending_.empty()) {
      auto [queue, block] = std::move(pending_.front());
      pending_.pop_front();
      block();
      block = nullptr;
    }
  }

  const std::vector<std::string>& made() const { return made_; }
  // Labels of the destroyed queues whose context was closed by the logger's finaliser.
  const std::vector<std::string>& finalized() const { return finalized_; }

 private:
  class Queue final : public SerialQueue, public std::enable_shared_from_this<Queue> {
   public:
    Queue(HeldQueues& queues, std::string label) : queues_(queues), label_(std::move(label)) {}
    ~Queue() override {
      if (context_ && context_.get_deleter() == &work_queue_finalizer)
        queues_.finalized_.push_back(label_);
    }
    const std::string& label() const override { return label_; }
    void setContext(QueueContext context) override { context_ = std::move(context); }
    void* context() const override { return context_.get(); }
    void async(Block block) override {
      queues_.pending_.emplace_back(shared_from_this(), std::move(block));
    }
    void sync(Block block) override { block(); }
    bool trySync(Block& /*block*/) override { return false; }

   private:
    HeldQueues& queues_;
    const std::string label_;
    QueueContext context_{nullptr, [](void*) {}};
  };

  std::deque<std::pair<std::shared_ptr<Queue>, SerialQueue::Block>> pending_;
  std::vector<std::string> made_;
  std::vector<std::string> finalized_;
};

class ORBLogger2Test : public testing::Test {
 protected:
  ~ORBLogger2Test() override { defaultLogger2Sender = "<no sender name>"; }

  // The idents of the clients that write a line of that thread.
  std::string identOf(std::uint32_t threadNumber) {
    queues_.runPending();
    sink_.clear();
    vantorlogger2_log(threadNumber, ASL_LEVEL_DEBUG, "line");
    queues_.runPending();
    const auto messages = sink_.messages();
    return messages.size() == 1 ? messages[0].ident : "not one line";
  }

  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  HeldQueues queues_;
  std::optional<Logger2State> state_{std::in_place, log_, queues_};
  std::optional<Logger2Binding> binding_{*state_};
};

TEST_F(ORBLogger2Test, ALineHasIdentFacilityLevelAndText) {
  vantorlogger2_open("ORBServiceManager", kThread);
  vantorlogger2_log(kThread, ASL_LEVEL_WARNING, "[%s:%u] %@", "main.cpp", 12U, "text");
  queues_.runPending();
  EXPECT_THAT(sink_.messages(), ElementsAre(Message{"ORBServiceManager", kFacility,
                                                    ASL_LEVEL_WARNING, "[main.cpp:12] text"}));
}

TEST_F(ORBLogger2Test, ALineKeepsItsFields) {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "line", {.messageId = "id", .label = "label", .process = 7});
  vantorlogger2_line(ASL_LEVEL_DEBUG, "next", {.messageId = "other"});
  queues_.runPending();
  EXPECT_THAT(sink_.texts(), ElementsAre(testing::EndsWith("] line"), testing::EndsWith("] next")));
  EXPECT_THAT(sink_.events(), ElementsAre(FakeLogSink::Event{"id", "label", 7},
                                          FakeLogSink::Event{"other", "", 0}));
}

TEST_F(ORBLogger2Test, ALineIsWrittenOnTheQueueNotByTheCaller) {
  vantorlogger2_open("A", kThread);
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "line");
  EXPECT_THAT(sink_.messages(), IsEmpty());
  queues_.runPending();
  EXPECT_THAT(sink_.texts(), ElementsAre("line"));
}

TEST_F(ORBLogger2Test, TheTextIsFormattedWhenItIsLogged) {
  std::string text = "before";
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "%@", text);
  text = "after";
  queues_.runPending();
  EXPECT_THAT(sink_.texts(), ElementsAre("before"));
}

TEST_F(ORBLogger2Test, PercentSignsAreLoggedVerbatim) {
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "%@", "50% %s %d %n %@ %");
  queues_.runPending();
  EXPECT_THAT(sink_.texts(), ElementsAre("50% %s %d %n %@ %"));
}

TEST_F(ORBLogger2Test, AThreadWithoutAQueueUsesTheProcessQueue) {
  vantorlogger2_open("First", kThread);
  vantorlogger2_open("Second", kThread + 1);
  EXPECT_EQ(identOf(kOther + 1), "First");
  EXPECT_EQ(get_queue(kOther + 1)->label(), "com.vantor.logger2.default.process");
}

TEST_F(ORBLogger2Test, ALineBeforeAnyOpenUsesTheControlQueue) {
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "line");
  queues_.runPending();
  EXPECT_THAT(sink_.messages(),
              ElementsAre(Message{"<no sender name>", kFacility, ASL_LEVEL_DEBUG, "line"}));
  EXPECT_EQ(get_queue(kThread)->label(), "com.vantor.logger2.default");
}

TEST_F(ORBLogger2Test, AThreadHasAQueueBeforeTheFirstLine) {
  ASSERT_NE(state_->queueFor(kThread), nullptr);
  EXPECT_EQ(state_->queueFor(kThread)->label(), "com.vantor.logger2.default");
}

TEST_F(ORBLogger2Test, TheSenderNameIsFixedAtTheFirstUse) {
  defaultLogger2Sender = "servicemanagerd";
  EXPECT_EQ(identOf(kThread), "servicemanagerd");
  defaultLogger2Sender = "too late";
  EXPECT_EQ(identOf(kThread), "servicemanagerd");
}

TEST_F(ORBLogger2Test, OpeningTwiceKeepsTheFirstIdentAndNeedsTwoCloses) {
  vantorlogger2_open("Process", kOther);
  vantorlogger2_open("First", kThread);
  const auto queue = get_queue(kThread);
  vantorlogger2_open("Second", kThread);
  EXPECT_EQ(get_queue(kThread), queue);
  EXPECT_EQ(identOf(kThread), "First");
  vantorlogger2_close(kThread);
  EXPECT_EQ(identOf(kThread), "First");
  vantorlogger2_close(kThread);
  EXPECT_EQ(identOf(kThread), "Process");
  vantorlogger2_close(kThread);
  EXPECT_EQ(identOf(kThread), "Process");
}

TEST_F(ORBLogger2Test, AThirdCloseIsSilent) {
  for (int i = 0; i < 2; ++i) vantorlogger2_open("A", kThread);
  for (int i = 0; i < 3; ++i) vantorlogger2_close(kThread);
  queues_.runPending();
  EXPECT_THAT(sink_.messages(), IsEmpty());
  vantorlogger2_open("B", kThread);
  EXPECT_EQ(identOf(kThread), "B");
  vantorlogger2_close(kThread);
  EXPECT_EQ(identOf(kThread), "A") << "the process's ident is the first ever opened";
}

TEST_F(ORBLogger2Test, AfterTheLastCloseLinesGoToTheProcessQueue) {
  vantorlogger2_open("A", kThread);
  vantorlogger2_close(kThread);
  EXPECT_EQ(get_queue(kThread)->label(), "com.vantor.logger2.default.process");
  EXPECT_EQ(identOf(kThread), "A");
}

TEST_F(ORBLogger2Test, ACloseForAnUnknownThreadIsIgnored) {
  vantorlogger2_close(kThread);
  vantorlogger2_open("A", kThread);
  vantorlogger2_close(kOther);
  queues_.runPending();
  EXPECT_THAT(sink_.messages(), IsEmpty());
  EXPECT_EQ(get_queue(kThread)->label(), "com.vantor.logger2.workqueue.7");
}

TEST_F(ORBLogger2Test, EveryQueueIsLabelledWithItsKey) {
  vantorlogger2_open("A", kThread);
  vantorlogger2_open("B", 0);
  vantorlogger2_open("C", 0x7FFFFFFF);
  // The number is formatted as signed.
  vantorlogger2_open("D", 0x80000000);
  vantorlogger2_open("E", 0xFFFFFFFF);
  EXPECT_THAT(
      queues_.made(),
      ElementsAre("com.vantor.logger2.default", "com.vantor.logger2.default.process",
                  "com.vantor.logger2.workqueue.7", "com.vantor.logger2.workqueue.0",
                  "com.vantor.logger2.workqueue.2147483647",
                  "com.vantor.logger2.workqueue.-2147483648", "com.vantor.logger2.workqueue.-1"));
  EXPECT_EQ(identOf(0x80000000), "D");
}

TEST_F(ORBLogger2Test, TheControlAndTheProcessQueueAreMadeOnce) {
  for (int i = 0; i < 3; ++i) {
    vantorlogger2_init_default();
    vantorlogger2_process_default_open("Later");
    vantorlogger2_open("A", kThread);
    vantorlogger2_close(kThread);
  }
  EXPECT_EQ(std::ranges::count(queues_.made(), "com.vantor.logger2.default"), 1);
  EXPECT_EQ(std::ranges::count(queues_.made(), "com.vantor.logger2.default.process"), 1);
  EXPECT_THAT(queues_.finalized(), testing::Each("com.vantor.logger2.workqueue.7"));
}

TEST_F(ORBLogger2Test, OnlyAnOpenMakesTheProcessQueue) {
  vantorlogger2_process_default_open("Too early");
  vantorlogger2_open("A", kThread);
  EXPECT_EQ(get_queue(kOther)->label(), "com.vantor.logger2.default");
}

TEST_F(ORBLogger2Test, PendingLinesAreWrittenBeforeTheClientIsClosed) {
  vantorlogger2_open("Process", kOther);
  vantorlogger2_open("A", kThread);
  for (const char* text : {"1", "2", "3"}) vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "%s", text);
  vantorlogger2_close(kThread);
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "4");
  EXPECT_THAT(queues_.finalized(), IsEmpty());
  queues_.runPending();
  EXPECT_THAT(sink_.texts(), ElementsAre("1", "2", "3", "4"));
  EXPECT_THAT(sink_.messagesOf("A"), testing::SizeIs(3));
  EXPECT_THAT(sink_.messagesOf("Process"), testing::SizeIs(1));
  EXPECT_THAT(queues_.finalized(), ElementsAre("com.vantor.logger2.workqueue.7"));
}

TEST_F(ORBLogger2Test, AQueueWithoutLinesIsClosedAtOnce) {
  vantorlogger2_open("A", kThread);
  vantorlogger2_close(kThread);
  EXPECT_THAT(queues_.finalized(), ElementsAre("com.vantor.logger2.workqueue.7"));
}

TEST_F(ORBLogger2Test, AnOpenAfterTheLastCloseMakesANewQueue) {
  vantorlogger2_open("A", kThread);
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "old");
  vantorlogger2_close(kThread);
  vantorlogger2_open("B", kThread);
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "new");
  queues_.runPending();
  EXPECT_THAT(sink_.messages(), ElementsAre(Message{"A", kFacility, ASL_LEVEL_DEBUG, "old"},
                                            Message{"B", kFacility, ASL_LEVEL_DEBUG, "new"}));
}

TEST_F(ORBLogger2Test, AFailedOpenLeavesTheDefaultClient) {
  vantorlogger2_open(std::string(SystemLog::kMaximumNameSize + 1, 'x'), kThread);
  EXPECT_EQ(get_queue(kThread)->label(), "com.vantor.logger2.workqueue.7");
  EXPECT_EQ(identOf(kThread), "program");
  EXPECT_EQ(identOf(kOther), "program");
  vantorlogger2_close(kThread);
  EXPECT_EQ(get_queue(kThread)->label(), "com.vantor.logger2.default.process");
}

TEST_F(ORBLogger2Test, ItsOwnErrorsAreSilent) {
  vantorlogger2_logging_error("No queue found for the key '%@'.", "key");
  queues_.runPending();
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_F(ORBLogger2Test, ALineOfAClassShowsItsFileLineAndThread) {
  vantorlogger2_open("Process", kThread);  // the queue that lines of other threads fall back to
  vantorlogger2_open("Main", mach_thread_self());
  const auto here = std::source_location::current();
  vantorlogger2_line(ASL_LEVEL_ERR, "100% of it");
  std::jthread([] { vantorlogger2_line(ASL_LEVEL_DEBUG, "from elsewhere"); }).join();
  queues_.runPending();
  const auto messages = sink_.messages();
  ASSERT_THAT(messages, testing::SizeIs(2));
  EXPECT_EQ(messages[0].text, stringWithFormat("[ORBLogger2_test.cpp:%u] 100%% of it",
                                               static_cast<unsigned>(here.line() + 1)));
  EXPECT_EQ(messages[0].level, ASL_LEVEL_ERR);
  EXPECT_EQ(messages[0].ident, "Main");
  EXPECT_EQ(messages[1].level, ASL_LEVEL_DEBUG);
  EXPECT_EQ(messages[1].ident, "Process");
}

TEST(ORBLogger2NamesTest, TheBaseNameFollowsTheLastSlash) {
  EXPECT_STREQ(vantorlogger2_srcbasename(nullptr), "");
  EXPECT_STREQ(vantorlogger2_srcbasename(""), "");
  EXPECT_STREQ(vantorlogger2_srcbasename("main.cpp"), "main.cpp");
  EXPECT_STREQ(vantorlogger2_srcbasename("a/b/main.cpp"), "main.cpp");
  EXPECT_STREQ(vantorlogger2_srcbasename("/main.cpp"), "main.cpp");
  EXPECT_STREQ(vantorlogger2_srcbasename("a/b/"), "");
}

TEST_F(ORBLogger2Test, WithoutABindingCallsDoNothing) {
  binding_.reset();
  vantorlogger2_init_default();
  vantorlogger2_process_default_open("A");
  vantorlogger2_open("A", kThread);
  vantorlogger2_log(kThread, ASL_LEVEL_ERR, "line");
  vantorlogger2_line(ASL_LEVEL_ERR, "line");
  vantorlogger2_close(kThread);
  EXPECT_EQ(get_queue(kThread), nullptr);
  queues_.runPending();
  EXPECT_THAT(sink_.messages(), IsEmpty());
  EXPECT_THAT(queues_.made(), IsEmpty());
}

TEST_F(ORBLogger2Test, PendingLinesAreWrittenWhenTheStateEnds) {
  vantorlogger2_open("A", kThread);
  vantorlogger2_log(kThread, ASL_LEVEL_ERR, "last words");
  binding_.reset();
  state_.reset();
  EXPECT_THAT(sink_.messages(), IsEmpty());
  queues_.runPending();
  EXPECT_THAT(sink_.messages(), ElementsAre(Message{"A", kFacility, ASL_LEVEL_ERR, "last words"}));
}

TEST_F(ORBLogger2Test, PendingLinesAreAnnouncedToTheLog) {
  for (int i = 0; i < 3; ++i) vantorlogger2_log(kThread, ASL_LEVEL_ERR, "line");
  EXPECT_EQ(*log_.announced(), 3U);
  queues_.runPending();
  EXPECT_EQ(*log_.announced(), 0U);
}

TEST_F(ORBLogger2Test, PendingLinesAreLimitedAndLostOnesReported) {
  const std::string part(WorkQueue::kMaximumBacklog / 8 - WorkQueue::kLineOverhead, 'x');
  for (int i = 0; i < 8; ++i) vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "%@", part);
  EXPECT_EQ(log_.dropped(), 0U) << "exactly the bound fits";
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "one more");
  EXPECT_EQ(log_.dropped(), 1U);
  queues_.runPending();
  EXPECT_EQ(sink_.count("one more"), 0U);
  EXPECT_EQ(sink_.count("1 message was lost here."), 1U);
  for (int i = 0; i < 8; ++i) vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "%@", part);
  EXPECT_EQ(log_.dropped(), 0U);
}

TEST_F(ORBLogger2Test, ALineBeyondTheLimitIsCutAndNotLost) {
  vantorlogger2_log(kThread, ASL_LEVEL_DEBUG, "%@",
                    std::string(WorkQueue::kMaximumBacklog + 1, 'x'));
  EXPECT_EQ(log_.dropped(), 0U);
  queues_.runPending();
  ASSERT_EQ(sink_.messages().size(), 1U);
  EXPECT_LE(sink_.messages()[0].text.size(), SystemLog::kMaximumMessageSize + 100);
}

}  // namespace
