#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"

#include <cassert>
#include <cstring>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/SystemFacts/Thread.h"

std::atomic<const char*> defaultLogger2Sender = "<no sender name>";

namespace {

std::atomic<Logger2State*> boundState = nullptr;

Logger2State* bound() { return boundState.load(std::memory_order_acquire); }

}  // namespace

Logger2Binding::Logger2Binding(Logger2State& state) {
  [[maybe_unused]] const auto* before = boundState.exchange(&state, std::memory_order_acq_rel);
  assert(before == nullptr);
}

Logger2Binding::~Logger2Binding() { boundState.store(nullptr, std::memory_order_release); }

void vantorlogger2_init_default() {
  if (Logger2State* state = bound()) state->initDefault();
}

void vantorlogger2_process_default_open(std::string_view ident) {
  if (Logger2State* state = bound()) state->processDefaultOpen(ident);
}

void vantorlogger2_open(std::string_view ident, std::uint32_t threadNumber) {
  if (Logger2State* state = bound()) state->open(ident, threadNumber);
}

void vantorlogger2_close(std::uint32_t threadNumber) {
  if (Logger2State* state = bound()) state->close(threadNumber);
}

std::shared_ptr<platform::SerialQueue> get_queue(std::uint32_t threadNumber) {
  Logger2State* state = bound();
  return state != nullptr ? state->queueFor(threadNumber) : nullptr;
}

void work_queue_finalizer(void* context) {
  platform::SystemLog::asl_close(
      std::unique_ptr<platform::AslClient>(static_cast<platform::AslClient*>(context)));
}

const char* vantorlogger2_srcbasename(const char* path) {
  if (path == nullptr) return "";
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

void vantorlogger2_logText(std::uint32_t threadNumber, int level, std::string_view message,
                           const platform::LogFields& fields) {
  if (Logger2State* state = bound()) state->log(threadNumber, level, message, fields);
}

bool vantorlogger2_isBound() { return bound() != nullptr; }

void vantorlogger2_line(int level, std::string_view message, const std::source_location& where) {
  vantorlogger2_line(level, message, platform::LogFields{}, where);
}

void vantorlogger2_line(int level, std::string_view message, platform::LogFields fields,
                        const std::source_location& where) {
  if (!vantorlogger2_isBound()) return;
  fields.where = where;
  vantorlogger2_logText(
      platform::mach_thread_self(), level,
      platform::stringWithFormat("[%s:%u] %@", vantorlogger2_srcbasename(where.file_name()),
                                 where.line(), message),
      fields);
}
