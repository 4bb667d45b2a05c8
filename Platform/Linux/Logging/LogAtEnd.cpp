#include "Platform/Linux/Logging/LogAtEnd.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace platform {
namespace {

constexpr int kProbes = 500;
constexpr timespec kProbePause{0, 2'000'000};  // 2 ms

constexpr int kFatalSignals[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};

std::atomic<const LogProgress*> logAtEnd = nullptr;
static_assert(std::atomic<const LogProgress*>::is_always_lock_free);

// Calls nothing but what a signal handler may call.
void awaitLog() {
  const LogProgress* progress = logAtEnd.load(std::memory_order_acquire);
  for (int i = 0; progress != nullptr && i < kProbes && progress->waiting() != 0; ++i)
    ::nanosleep(&kProbePause, nullptr);
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

LogAtEnd::LogAtEnd(std::shared_ptr<const LogProgress> progress) {
  // Kept to the end of the program: a handler of another thread may be reading an earlier one.
  static auto* const kept = new std::vector<std::shared_ptr<const LogProgress>>;
  kept->push_back(progress);
  logAtEnd.store(progress.get(), std::memory_order_release);
  for (const int signal : kFatalSignals) handle(signal);
  static const bool isRegistered = std::atexit(awaitLog) == 0;
  static_cast<void>(isRegistered);
}

LogAtEnd::~LogAtEnd() { logAtEnd.store(nullptr, std::memory_order_release); }

}  // namespace platform
