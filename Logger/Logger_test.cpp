#include "Logger/Logger.h"

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Logging/FakeLogSink.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;
using Message = FakeLogSink::Message;

class LoggerTest : public testing::Test {
 protected:
  // Runs on a thread that has no record yet.
  static void onFreshThread(std::function<void()> function) {
    std::jthread(std::move(function)).join();
  }

  void expectClient(std::string_view ident, std::string_view facility) {
    const AslClient* client = vantorlogger_getclient();
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->ident, ident);
    EXPECT_EQ(client->facility, facility);
  }

  void expectImplicitClient() { expectClient("<no asl_client>", "com.vantor.logger"); }

  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  LoggerBinding binding_{log_};
};

TEST_F(LoggerTest, AFreshThreadsClientIsOpenedOnceWithItsOwnIdent) {
  onFreshThread([this] {
    const AslClient* client = vantorlogger_getclient();
    expectImplicitClient();
    EXPECT_EQ(vantorlogger_getclient(), client);
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, AnExplicitOpenNamesTheClient) {
  onFreshThread([this] {
    vantorlogger_open("Vantor Distant Object", "com.vantor.hostagent.libVantorDistantObject");
    expectClient("Vantor Distant Object", "com.vantor.hostagent.libVantorDistantObject");
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, ASecondOpenCountsAndItsNamesAreIgnored) {
  onFreshThread([this] {
    vantorlogger_open("first", "one");
    const AslClient* client = vantorlogger_getclient();
    vantorlogger_open("second", "two");
    EXPECT_EQ(vantorlogger_getclient(), client);
    vantorlogger_close();
    EXPECT_EQ(vantorlogger_getclient(), client);
    expectClient("first", "one");
    vantorlogger_close();
    expectImplicitClient();
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, TheImplicitOpenCountsAndNeedsNoClose) {
  onFreshThread([this] {
    expectImplicitClient();
    vantorlogger_open("late", "late");
    expectImplicitClient();
    vantorlogger_close();
    expectImplicitClient();
    vantorlogger_close();
    vantorlogger_open("now", "first");
    expectClient("now", "first");
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, ACloseWithoutARecordDoesNothing) {
  onFreshThread([this] {
    vantorlogger_close();
    vantorlogger_open("first", "one");
    vantorlogger_close();
    vantorlogger_close();
    vantorlogger_open("second", "two");
    expectClient("second", "two");
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, AFailedOpenLeavesTheDefaultClientAndARecord) {
  onFreshThread([] {
    const std::string tooLong(SystemLog::kMaximumNameSize + 1, 'x');
    vantorlogger_open(tooLong.c_str(), "f");
    EXPECT_EQ(vantorlogger_getclient(), nullptr);
    vantorlogger_line(ASL_LEVEL_ERR, "text");
    vantorlogger_close();  // Count 0 now, and the record is still there,
    vantorlogger_open("second", "two");
    EXPECT_EQ(vantorlogger_getclient(), nullptr);
    vantorlogger_close();
    vantorlogger_close();  // also below 0.
    EXPECT_EQ(vantorlogger_getclient(), nullptr);
  });
  EXPECT_THAT(sink_.messagesOf("program"), testing::SizeIs(1));
}

TEST_F(LoggerTest, EachThreadHasAClientOfItsOwn) {
  onFreshThread([this] {
    vantorlogger_open("outer", "o");
    const AslClient* outer = vantorlogger_getclient();
    onFreshThread([this, outer] {
      EXPECT_NE(vantorlogger_getclient(), outer);
      expectImplicitClient();
      vantorlogger_close();
    });
    expectClient("outer", "o");
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, AClientOutlivesItsThread) {
  const AslClient* client = nullptr;
  onFreshThread([&] {
    vantorlogger_open("ended", "f");
    client = vantorlogger_getclient();
  });
  log_.asl_log(client, ASL_LEVEL_ERR, "late");
  EXPECT_THAT(sink_.messages(), ElementsAre(Message{"ended", "f", ASL_LEVEL_ERR, "late"}));
}

TEST_F(LoggerTest, CodeThatRunsLateOnAThreadFindsItsClient) {
  onFreshThread([] {
    // Destroyed after all objects of the thread that were made later, the logger's own included.
    struct Late {
      ~Late() { vantorlogger_line(ASL_LEVEL_DEBUG, "late"); }
    };
    static thread_local Late late;
    [[maybe_unused]] const Late* touched = &late;
    vantorlogger_open("ending", "f");
  });
  EXPECT_THAT(sink_.messagesOf("ending"), testing::SizeIs(1));
}

TEST_F(LoggerTest, CodeThatRunsLateOnAThreadMayOpenItsFirstClient) {
  onFreshThread([] {
    // Destroyed after the logger's own object, which the close leaves behind.
    struct Late {
      ~Late() {
        vantorlogger_open("first", "f");
        vantorlogger_line(ASL_LEVEL_DEBUG, "late");
        vantorlogger_close();
      }
    };
    static thread_local Late late;
    [[maybe_unused]] const Late* touched = &late;
    vantorlogger_open("before", "f");
    vantorlogger_close();
  });
  EXPECT_THAT(sink_.messagesOf("first"), testing::SizeIs(1));
}

TEST_F(LoggerTest, TheThreadsDestructorDoesNothing) {
  onFreshThread([this] {
    vantorlogger_open("first", "one");
    vantorlogger_client_destructor(nullptr);
    int record = 1;
    vantorlogger_client_destructor(&record);
    EXPECT_EQ(record, 1);
    expectClient("first", "one");
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, ALineIsWrittenBeforeTheCallReturns) {
  onFreshThread([this] {
    vantorlogger_open("ident", "facility");
    const auto here = std::source_location::current();
    vantorlogger_line(ASL_LEVEL_WARNING, "100% %s %n");
    EXPECT_THAT(sink_.messages(),
                ElementsAre(Message{"ident", "facility", ASL_LEVEL_WARNING,
                                    stringWithFormat("[Logger_test.cpp:%u] 100%% %%s %%n",
                                                     static_cast<unsigned>(here.line() + 1))}));
    vantorlogger_close();
  });
}

TEST_F(LoggerTest, ItsOwnErrorsAreSilent) {
  vantorlogger_logging_error("%d is wrong", 1);
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_F(LoggerTest, ThreadsOpenLogAndCloseConcurrently) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([] {
        for (int i = 0; i < kLines; ++i) {
          vantorlogger_open("A", "f");
          vantorlogger_line(ASL_LEVEL_DEBUG, "line");
          if (i + 1 < kLines) vantorlogger_close();
        }
      });
  }
  EXPECT_EQ(sink_.messagesOf("A").size(), static_cast<std::size_t>(kThreads * kLines));
}

TEST(LoggerNamesTest, TheBaseNameFollowsTheLastSlash) {
  EXPECT_STREQ(vantor_srcbasename(nullptr), "");
  EXPECT_STREQ(vantor_srcbasename(""), "");
  EXPECT_STREQ(vantor_srcbasename("main.cpp"), "main.cpp");
  EXPECT_STREQ(vantor_srcbasename("a/b/main.cpp"), "main.cpp");
  EXPECT_STREQ(vantor_srcbasename("a/b/"), "");
}

TEST(LoggerUnboundTest, WithoutABindingCallsDoNothing) {
  std::jthread([] {
    vantorlogger_open("A", "f");
    EXPECT_EQ(vantorlogger_getclient(), nullptr);
    vantorlogger_line(ASL_LEVEL_ERR, "line");
    vantorlogger_close();
  }).join();
  // Calls without a binding left no record behind.
  FakeLogSink sink;
  SystemLog log(sink, "program");
  LoggerBinding binding(log);
  std::jthread([] {
    vantorlogger_open("B", "f");
    vantorlogger_line(ASL_LEVEL_ERR, "line");
    vantorlogger_close();
  }).join();
  EXPECT_THAT(sink.messagesOf("B"), testing::SizeIs(1));
}

}  // namespace
