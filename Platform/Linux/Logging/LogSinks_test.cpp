// The contract of log sinks for the three sinks of the system log, with and without a buffer.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Linux/Logging/BufferedLogSink.h"
#include "Platform/Linux/Logging/FileLogSink.h"
#include "Platform/Linux/Logging/JournalLogSink.h"
#include "Platform/Linux/Logging/SyslogLogSink.h"
#include "Platform/Logging/LogSink_contract.h"
#include "Platform/Testing/Logging/LogReceiver.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

ReceivedMessage readJournal(const LogReceiver::Datagram& datagram) {
  const auto fields = parseJournalEntry(datagram.file ? *datagram.file : datagram.bytes);
  if (!fields || !fields->contains("PRIORITY")) return {};
  EXPECT_EQ(fields->size(), 5U);
  EXPECT_EQ(fields->at("SYSLOG_FACILITY"), "3");
  return {fields->at("SYSLOG_IDENTIFIER"), fields->at("VANTOR_FACILITY"),
          std::stoi(fields->at("PRIORITY")), fields->at("MESSAGE")};
}

ReceivedMessage readSyslog(const LogReceiver::Datagram& datagram) {
  const auto line = parseSyslogLine(datagram.bytes);
  if (!line) return {};
  const int priority = std::stoi(line->level);
  EXPECT_EQ(priority >> 3, 3) << "not the facility daemon";
  EXPECT_EQ(line->pid, ::getpid());
  return {line->ident, line->facility, priority & 7, line->text};
}

template <typename Sink, ReceivedMessage (*kRead)(const LogReceiver::Datagram&)>
class SocketHarness final : public LogSinkHarness {
 public:
  LogSink& sink() override { return *sink_; }
  std::vector<ReceivedMessage> take() override {
    std::vector<ReceivedMessage> received;
    for (const auto& datagram : receiver_->take()) received.push_back(kRead(datagram));
    return received;
  }
  void remove() override { receiver_.reset(); }
  void restore() override { receiver_ = std::make_unique<LogReceiver>(folder_.path("socket")); }

 private:
  TemporaryLogFolder folder_;
  std::unique_ptr<LogReceiver> receiver_ = std::make_unique<LogReceiver>(folder_.path("socket"));
  std::unique_ptr<LogSink> sink_ = Sink::make(folder_.path("socket")).value();
};

template <typename Harness>
std::unique_ptr<LogSinkHarness> makeLogSinkHarness() {
  return std::make_unique<Harness>();
}

using JournalHarness = SocketHarness<JournalLogSink, &readJournal>;
using SyslogHarness = SocketHarness<SyslogLogSink, &readSyslog>;

class FileHarness final : public LogSinkHarness {
 public:
  LogSink& sink() override { return sink_; }

  std::vector<ReceivedMessage> take() override {
    const std::string contents = contentOfFile(path_);
    std::vector<ReceivedMessage> received;
    for (std::size_t end; (end = contents.find('\n', taken_)) != contents.npos; taken_ = end + 1) {
      const auto line = parseLogFileLine(std::string_view(contents).substr(taken_, end - taken_));
      received.push_back(
          line ? ReceivedMessage{line->ident, line->facility, levelOf(line->level), line->text}
               : ReceivedMessage{});
    }
    return received;
  }

  void remove() override {
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
  }
  void restore() override {
    std::filesystem::remove(path_);
    taken_ = 0;
  }

 private:
  static int levelOf(const std::string& name) {
    static const std::vector<std::string> kNames{"Emergency", "Alert",  "Critical", "Error",
                                                 "Warning",   "Notice", "Info",     "Debug"};
    return static_cast<int>(std::ranges::find(kNames, name) - kNames.begin());
  }

  TemporaryLogFolder folder_;
  const std::string path_ = folder_.path("system.log");
  FileLogSink sink_{path_};
  std::size_t taken_ = 0;
};

// Another harness's sink behind a buffer.
template <typename Harness>
class BufferedHarness final : public LogSinkHarness {
 public:
  LogSink& sink() override { return sink_; }
  std::vector<ReceivedMessage> take() override {
    // A receiver that is not read holds up what is buffered.
    std::vector<ReceivedMessage> received;
    std::uint64_t waiting = 0;
    do {
      waiting = sink_.flush(std::chrono::milliseconds(1));
      std::ranges::move(harness_.take(), std::back_inserter(received));
    } while (waiting > 0);
    return received;
  }
  void remove() override { harness_.remove(); }
  void restore() override { harness_.restore(); }

 private:
  // The buffer owns its sink, and the harness this one.
  class Forwarded final : public LogSink {
   public:
    explicit Forwarded(LogSink& sink) : sink_(sink) {}
    Result<void> write(const LogRecord& record) override { return sink_.write(record); }

   private:
    LogSink& sink_;
  };

  Harness harness_;
  BufferedLogSink sink_{std::make_unique<Forwarded>(harness_.sink())};
};

const auto kImmediateHarnesses =
    testing::Values(&makeLogSinkHarness<JournalHarness>, &makeLogSinkHarness<SyslogHarness>,
                    &makeLogSinkHarness<FileHarness>);

std::string nameOfHarness(
    const testing::TestParamInfo<std::unique_ptr<LogSinkHarness> (*)()>& info) {
  return std::vector<std::string>{"Journal", "Syslog", "File"}[info.index];
}

INSTANTIATE_TEST_SUITE_P(Immediate, LogSinkContract, kImmediateHarnesses, nameOfHarness);
INSTANTIATE_TEST_SUITE_P(Immediate, ImmediateLogSinkContract, kImmediateHarnesses, nameOfHarness);
INSTANTIATE_TEST_SUITE_P(Buffered, LogSinkContract,
                         testing::Values(&makeLogSinkHarness<BufferedHarness<JournalHarness>>,
                                         &makeLogSinkHarness<BufferedHarness<SyslogHarness>>,
                                         &makeLogSinkHarness<BufferedHarness<FileHarness>>),
                         nameOfHarness);

}  // namespace
}  // namespace platform
