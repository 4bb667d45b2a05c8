#include "Platform/Linux/Logging/LogAtEnd.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <utility>

#include <unistd.h>

namespace platform {
namespace {

constexpr std::int64_t kEndTime = 1'000'000'000;  // ns
constexpr timespec kProbePause{0, 2'000'000};     // 2 ms

constexpr int kFatalSignals[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};

struct LogToAwait {
  std::shared_ptr<const LogProgress> progress;            // shared with the sink
  std::shared_ptr<const SystemLog::Announced> announced;  // shared with the log

  // An announced message counts until the buffer has it, so this reads that number first.
  bool isWritten() const {
    return announced->load(std::memory_order_acquire) == 0 && progress->waiting() == 0;
  }
};

std::atomic<const LogToAwait*> logAtEnd = nullptr;
static_assert(std::atomic<const LogToAwait*>::is_always_lock_free);
static_assert(SystemLog::Announced::is_always_lock_free);

std::int64_t nanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Makes only calls that a signal handler may make.
void awaitLog() {
  const LogToAwait* log = logAtEnd.load(std::memory_order_acquire);
  if (log == nullptr) return;
  const std::int64_t end = nanoseconds() + kEndTime;
  while (!log->isWritten() && nanoseconds() < end) ::nanosleep(&kProbePause, nullptr);
}

// The signal's action is the default one again. It is raised for one that another process has sent;
// after any other, the faulty instruction or abort() would raise it again anyway.
void onFatalSignal(int signal) {
  awaitLog();
  static_cast<void>(std::raise(signal));
}

void handle(int signal) {
  struct sigaction action{};
  if (::sigaction(signal, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
  action.sa_handler = onFatalSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  ::sigemptyset(&action.sa_mask);
  ::sigaction(signal, &action, nullptr);
}

}  // namespace

LogAtEnd::LogAtEnd(std::shared_ptr<const LogProgress> progress,
                   std::shared_ptr<const SystemLog::Announced> announced) {
  // Kept to the end of the program: a handler of another thread may be reading an earlier one.
  static auto* const kept = new std::list<LogToAwait>;
  kept->push_back({std::move(progress), std::move(announced)});
  logAtEnd.store(&kept->back(), std::memory_order_release);
  for (const int signal : kFatalSignals) handle(signal);
  static const bool isRegistered = std::atexit(awaitLog) == 0;
  static_cast<void>(isRegistered);
}

LogAtEnd::~LogAtEnd() { logAtEnd.store(nullptr, std::memory_order_release); }

void endProgramNow(int status) {
  awaitLog();
  ::_exit(status);
}

}  // namespace platform
