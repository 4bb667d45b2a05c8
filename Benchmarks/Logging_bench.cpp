#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Linux/Logging/BufferedLogSink.h"
#include "Platform/Linux/Logging/FileLogSink.h"
#include "Platform/Linux/Logging/JournalLogSink.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Testing/Logging/LogReceiver.h"
#include "Platform/Texts/StringFormat.h"

namespace benchmarks {
namespace {

using namespace platform;

const std::string kMessage =
    "Service com.vantor.service.example is running, nothing needs to be done.";
const LogRecord kRecord{"ORBServiceManager", "com.vantor.hostagent", ASL_LEVEL_DEBUG,
                        "[ORBServiceManager.cpp:1234] Service com.vantor.service.example is "
                        "running, nothing needs to be done."};

// The caller's cost of a line: formatting the text and passing it on. Lines come in bursts as in a
// busy moment of the daemon, to the slowest sink, and the pending lines are written untimed between
// the bursts: this measures the caller, not the throughput of the log.
constexpr int kBurst = 256;

// The thread's own time. The scheduler favours a caller that has slept over a baseline that has
// not, and on a busy machine that would hide everything else.
double threadSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename Line>
void timeBurst(benchmark::State& state, Line line) {
  const double begin = threadSeconds();
  for (int i = 0; i < kBurst; ++i) line();
  state.SetIterationTime(threadSeconds() - begin);
}

void logLines(benchmark::State& state) {
  TemporaryLogFolder folder;
  FileLogSink sink(folder.path("system.log"));
  SystemLog log(sink, "benchmark");
  AsioSerialQueues queues(1, AsioSerialQueues::Work::kBackground);
  Logger2State logger(log, queues);
  Logger2Binding binding(logger);
  const std::uint32_t thread = mach_thread_self();
  vantorlogger2_open("ORBServiceManager", thread);
  for (auto _ : state) {
    timeBurst(state, [] { vantorlogger2_line(ASL_LEVEL_DEBUG, kMessage); });
    get_queue(thread)->sync([] {});
  }
  if (log.dropped() != 0) state.SkipWithError("lines were lost");
  vantorlogger2_close(thread);
}

void formatLines(benchmark::State& state) {
  for (auto _ : state) {
    timeBurst(state, [] {
      const std::string line =
          stringWithFormat("[%s:%u] %@", vantorlogger2_srcbasename(__FILE__), 1234U, kMessage);
      benchmark::DoNotOptimize(line.data());
    });
  }
}

void writeThroughFileSink(benchmark::State& state) {
  TemporaryLogFolder folder;
  FileLogSink sink(folder.path("system.log"));
  for (auto _ : state) {
    timeBurst(state, [&] {
      if (!sink.write(kRecord)) state.SkipWithError("the sink refused");
    });
  }
}

// The caller's cost of a line that waits in the buffer; the file is written untimed.
void writeToBuffer(benchmark::State& state) {
  TemporaryLogFolder folder;
  BufferedLogSink sink(std::make_unique<FileLogSink>(folder.path("system.log")));
  for (auto _ : state) {
    timeBurst(state, [&] {
      if (!sink.write(kRecord)) state.SkipWithError("the buffer refused");
    });
    if (sink.flush(std::chrono::minutes(1)) != 0) state.SkipWithError("the file is not written");
  }
}

void writeToFile(benchmark::State& state) {
  TemporaryLogFolder folder;
  FileLogSink sink(folder.path("sample"));
  if (!sink.write(kRecord)) state.SkipWithError("the sink refused");
  const std::string line(std::filesystem::file_size(folder.path("sample")), 'x');
  const UniqueFd file(
      ::open(folder.path("system.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  // The largest file that the sink allows.
  const std::int64_t lines = static_cast<std::int64_t>(FileLogSink::Limits{}.bytes / line.size());
  std::int64_t written = 0;
  for (auto _ : state) {
    timeBurst(state, [&] {
      if (::write(file.get(), line.data(), line.size()) < 0) state.SkipWithError("write failed");
      if (++written % lines == 0) benchmark::DoNotOptimize(::ftruncate(file.get(), 0));
    });
  }
}

// Reads after every message, on the same thread, so that the sink never meets a full queue and the
// time includes no thread's wake-up.
void receive(int socket) {
  std::array<char, 4096> buffer;
  benchmark::DoNotOptimize(::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT));
}

void sendThroughJournalSink(benchmark::State& state) {
  TemporaryLogFolder folder;
  LogReceiver receiver(folder.path("socket"));
  const auto sink = JournalLogSink::make(folder.path("socket")).value();
  for (auto _ : state) {
    timeBurst(state, [&] {
      if (!sink->write(kRecord)) state.SkipWithError("the sink refused");
      receive(receiver.descriptor());
    });
  }
}

void sendToSocket(benchmark::State& state) {
  TemporaryLogFolder folder;
  LogReceiver receiver(folder.path("socket"));
  if (!JournalLogSink::make(folder.path("socket")).value()->write(kRecord))
    state.SkipWithError("the sink refused");
  const std::string entry = receiver.take().at(0).bytes;
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
    state.SkipWithError("no socket pair");
  const UniqueFd sender(ends[0]);
  const UniqueFd reader(ends[1]);
  for (auto _ : state) {
    timeBurst(state, [&] {
      if (::send(sender.get(), entry.data(), entry.size(), MSG_DONTWAIT) < 0)
        state.SkipWithError("send failed");
      receive(reader.get());
    });
  }
}

BENCHMARK(logLines)->Name("log2-caller/subject")->UseManualTime();
BENCHMARK(formatLines)->Name("log2-caller/baseline")->UseManualTime();
BENCHMARK(writeThroughFileSink)->Name("log-sink-file/subject")->UseManualTime();
BENCHMARK(writeToFile)->Name("log-sink-file/baseline")->UseManualTime();
BENCHMARK(writeToBuffer)->Name("log-buffer/subject")->UseManualTime();
BENCHMARK(writeToFile)->Name("log-buffer/baseline")->UseManualTime();
BENCHMARK(sendThroughJournalSink)->Name("log-sink-journal/subject")->UseManualTime();
BENCHMARK(sendToSocket)->Name("log-sink-journal/baseline")->UseManualTime();

// The file sink checks the file's name before each line, so that a rotation loses no line; that
// alone takes longer than the write. The journal sink looks up the socket's name for each entry.
[[maybe_unused]] const bool kGoals =
    atMost({"log2-caller", 2.0, "the caller of 256 lines of logger 2 : formatting them"}) &&
    atMost({"log-buffer", 0.3, "the caller of 256 lines that are buffered : one write of each"}) &&
    atMost({"log-sink-file", 5.0, "256 lines of the log file : one write of each"}) &&
    atMost({"log-sink-journal", 2.5, "256 entries to the journal : one send of each"});

}  // namespace
}  // namespace benchmarks
