#include "Logger/Logger.h"

#include <cassert>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

using platform::AslClient;
using platform::SystemLog;

namespace {

constexpr char kImplicitIdent[] = "<no asl_client>";
constexpr char kImplicitFacility[] = "com.vantor.logger";

struct ClientRecord {
  std::unique_ptr<AslClient> client;
  std::int32_t openCount = 0;
  ClientRecord* previous = nullptr;
  ClientRecord* next = nullptr;
};

std::atomic<SystemLog*> boundLog = nullptr;

// All records. The list is the only reference to those of ended threads.
std::mutex recordsLock;
ClientRecord* records = nullptr;

// A plain pointer, since it must also be valid for code that runs after the thread's objects have
// been destroyed.
thread_local ClientRecord* threadRecord = nullptr;

// Code that runs late on a thread must not touch an object that has been destroyed.
thread_local bool isThreadEnding = false;

// Stands in for the destructor of a thread-specific key.
class ThreadExit {
 public:
  ~ThreadExit() {
    isThreadEnding = true;
    if (threadRecord != nullptr) vantorlogger_client_destructor(threadRecord);
  }
  void watch() {}
};

thread_local ThreadExit threadExit;

void addToRecords(ClientRecord* record) {
  const std::lock_guard lock(recordsLock);
  record->next = records;
  if (records != nullptr) records->previous = record;
  records = record;
}

void removeFromRecords(ClientRecord* record) {
  const std::lock_guard lock(recordsLock);
  if (record->next != nullptr) record->next->previous = record->previous;
  (record->previous != nullptr ? record->previous->next : records) = record->next;
}

}  // namespace

LoggerBinding::LoggerBinding(SystemLog& systemLog) {
  [[maybe_unused]] const auto* before = boundLog.exchange(&systemLog, std::memory_order_acq_rel);
  assert(before == nullptr);
}

LoggerBinding::~LoggerBinding() { boundLog.store(nullptr, std::memory_order_release); }

void vantorlogger_open(const char* ident, const char* facility) {
  if (threadRecord != nullptr) {
    ++threadRecord->openCount;
    return;
  }
  SystemLog* log = boundLog.load(std::memory_order_acquire);
  if (log == nullptr) return;
  if (!isThreadEnding) threadExit.watch();
  auto record = std::make_unique<ClientRecord>();
  record->client = log->asl_open(ident, facility, 0);
  record->openCount = 1;
  addToRecords(record.get());
  threadRecord = record.release();  // Owned by the list; the last close on the thread takes it out.
}

const AslClient* vantorlogger_getclient() {
  if (threadRecord == nullptr) vantorlogger_open(kImplicitIdent, kImplicitFacility);
  return threadRecord != nullptr ? threadRecord->client.get() : nullptr;
}

void vantorlogger_close() {
  if (threadRecord == nullptr) return;
  if (threadRecord->openCount-- != 1) return;
  // If its client could not be opened, the record stays in the list unused.
  if (!threadRecord->client) return;
  const std::unique_ptr<ClientRecord> record(std::exchange(threadRecord, nullptr));
  removeFromRecords(record.get());
  SystemLog::asl_close(std::move(record->client));
}

void vantorlogger_client_destructor(void* /*record*/) {}

const char* vantor_srcbasename(const char* path) {
  if (path == nullptr) return "";
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

void vantorlogger_line(int level, std::string_view message, const std::source_location& where) {
  SystemLog* log = boundLog.load(std::memory_order_acquire);
  if (log == nullptr) return;
  const AslClient* client = vantorlogger_getclient();
  log->asl_log(client, level,
               platform::stringWithFormat("[%s:%u] %s", vantor_srcbasename(where.file_name()),
                                          where.line(), message),
               {.where = where});
}
