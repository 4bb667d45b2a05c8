#include "Platform/Linux/Logging/LogAtEnd.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Logging/BufferedLogSink.h"
#include "Platform/Linux/Logging/FileLogSink.h"
#include "Platform/Testing/Logging/HungDisk.h"
#include "Platform/Testing/Logging/LogReceiver.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::EndsWith;
using namespace std::chrono_literals;

class LogAtEndTest : public testing::Test {
 protected:
  // Runs a program that logs some lines and then `end`. Returns its wait status.
  template <typename End>
  int run(End end, bool diskHangs = false) {
    const pid_t child = ::fork();
    if (child == 0) {
      const rlimit noCore{};
      ::setrlimit(RLIMIT_CORE, &noCore);
      // A sanitizer's handlers would stay, and print.
      for (const int signal : {SIGABRT, SIGSEGV}) std::signal(signal, SIG_DFL);
      FileLogSink file(path_);
      HungDisk disk;
      if (diskHangs) disk.hang();
      BufferedLogSink sink(disk.makeSink(file));
      const LogAtEnd atEnd(sink.progress(), announced_);
      for (int i = 0; i < 2000; ++i)
        static_cast<void>(sink.write({"I", "f", ASL_LEVEL_INFO, std::to_string(i)}));
      if constexpr (std::is_invocable_v<End, LogSink&>) {
        end(sink);
      } else {
        end();
      }
      ::_exit(77);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return status;
  }

  // Messages that another thread will log.
  const std::shared_ptr<SystemLog::Announced> announced_ =
      std::make_shared<SystemLog::Announced>(0);
  TemporaryLogFolder folder_;
  const std::string path_ = folder_.path("system.log");
};

TEST_F(LogAtEndTest, AnAbortWritesWhatIsBuffered) {
  const int status = run([] { std::abort(); });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_THAT(contentOfFile(path_), EndsWith("> 1999\n"));
}

TEST_F(LogAtEndTest, TerminateWritesWhatIsBuffered) {
  const int status = run([] { std::terminate(); });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_THAT(contentOfFile(path_), EndsWith("> 1999\n"));
}

TEST_F(LogAtEndTest, ACrashWritesWhatIsBuffered) {
  const int status = run([] { ::kill(::getpid(), SIGSEGV); });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
  EXPECT_THAT(contentOfFile(path_), EndsWith("> 1999\n"));
}

TEST_F(LogAtEndTest, AnEndOfTheProgramWritesWhatIsBuffered) {
  const int status = run([] { endProgramNow(5); });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 5) << status;
  EXPECT_THAT(contentOfFile(path_), EndsWith("> 1999\n"));
}

TEST_F(LogAtEndTest, AnExitWithoutDestructorsWritesWhatIsBuffered) {
  // The test program's own functions for the exit do not belong to this.
  const int status = run([] { std::exit(5); });
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_THAT(contentOfFile(path_), EndsWith("> 1999\n"));
}

TEST_F(LogAtEndTest, AnAbortWritesWhatAnotherThreadIsAboutToLog) {
  constexpr int kMessages = 1000;
  const int status = run([this](LogSink& sink) {
    *announced_ = kMessages;
    std::thread([&] {
      for (int i = 0; i < kMessages; ++i) {
        static_cast<void>(sink.write({"I", "f", ASL_LEVEL_INFO, "late " + std::to_string(i)}));
        announced_->fetch_sub(1);
      }
    }).detach();
    std::abort();
  });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_THAT(contentOfFile(path_), EndsWith("> late 999\n"));
}

TEST_F(LogAtEndTest, AnAbortBesideAHungDiskIsBounded) {
  const auto begin = std::chrono::steady_clock::now();
  const int status = run([] { std::abort(); }, /*diskHangs=*/true);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
}

}  // namespace
}  // namespace platform
