#include "ServiceManager/ServiceManager/QuarantineDatabase.h"

#include <memory>
#include <tuple>

#include <sqlite3.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Files/FileOwner.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Texts/StringFormat.h"
#include "Platform/Texts/Utf8.h"

using namespace platform;

namespace {

constexpr char kFile[] = "Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2";
constexpr char kQuery[] =
    "SELECT LSQuarantineOriginURLString FROM LSQuarantineEvent WHERE LSQuarantineEventIdentifier "
    "== ?1";
// The limit of any text or blob. The identifiers that we are given have 4096 bytes at most.
constexpr int kMaxTextBytes = 16 * 1024;
constexpr int kMaxPatternBytes = 16;
constexpr int kInstructionsPerCheck = 1000;
// The limit of all open databases together: a schema may have any number of tables.
constexpr sqlite3_int64 kMaxMemoryBytes = 32 << 20;

struct CloseDatabase {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Sets up SQLite for the whole program, in which only this file uses it.
//
// SQLite opens the file, its journals and its other files by name. The user may have put a pipe in
// the place of any of them, and SQLite would wait for the other end of the pipe for ever.
void setUpSqlite() {
  static const int kDone = [] {
    sqlite3_hard_heap_limit64(kMaxMemoryBytes);
    sqlite3_vfs* system = sqlite3_vfs_find(nullptr);
    return system->xSetSystemCall(system, "open",
                                  reinterpret_cast<sqlite3_syscall_ptr>(&openWithoutWaiting));
  }();
  std::ignore = kDone;
}

void logOpenFailure() { vantorlogger2_line(ASL_LEVEL_DEBUG, "Failed to open database!"); }

// The query runs even if this has failed, and fails then.
Database open(const std::string& path) {
  setUpSqlite();
  sqlite3* opened = nullptr;
  if (sqlite3_open(path.c_str(), &opened) != SQLITE_OK) logOpenFailure();
  return Database(opened);
}

// `isOver` outlives the use of the database.
//
// `isOver` is called between instructions, so none of them may take long. One call of a function
// can compare or make megabytes, so functions may have no arguments; a schema that uses any other
// function is an error then. The query needs no views, triggers or virtual tables.
void bound(sqlite3* database, const std::function<bool()>& isOver) {
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kMaxTextBytes);
  sqlite3_limit(database, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, kMaxPatternBytes);
  sqlite3_limit(database, SQLITE_LIMIT_FUNCTION_ARG, 0);
  sqlite3_drop_modules(database, nullptr);
  for (const int allowed : {SQLITE_DBCONFIG_ENABLE_VIEW, SQLITE_DBCONFIG_ENABLE_TRIGGER,
                            SQLITE_DBCONFIG_TRUSTED_SCHEMA}) {
    sqlite3_db_config(database, allowed, 0, nullptr);
  }
  // A write-ahead log stays as it is: a checkpoint on close would be without any bound.
  for (const int wanted : {SQLITE_DBCONFIG_DEFENSIVE, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE}) {
    sqlite3_db_config(database, wanted, 1, nullptr);
  }
  // Otherwise a write-ahead log would come with a file that we map, and its owner could truncate it
  // under us.
  sqlite3_exec(database, "PRAGMA locking_mode = EXCLUSIVE", nullptr, nullptr, nullptr);
  sqlite3_progress_handler(
      database, kInstructionsPerCheck,
      [](void* asked) { return (*static_cast<const std::function<bool()>*>(asked))() ? 1 : 0; },
      const_cast<std::function<bool()>*>(&isOver));
}

std::optional<std::string> query(sqlite3* database, const std::string& identifier) {
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(database, kQuery, -1, &prepared, nullptr) != SQLITE_OK) return {};
  const Statement statement(prepared);
  if (sqlite3_bind_text(prepared, 1, identifier.data(), static_cast<int>(identifier.size()),
                        SQLITE_STATIC) != SQLITE_OK ||
      sqlite3_step(prepared) != SQLITE_ROW) {
    return {};
  }
  const unsigned char* text = sqlite3_column_text(prepared, 0);
  if (text == nullptr) return {};
  // A blob may hold any bytes, and so may a text that the user has written.
  std::string origin(reinterpret_cast<const char*>(text));
  if (platform::findIllFormedUtf8(origin)) return {};
  return origin;
}

}  // namespace

std::optional<std::string> originOfQuarantineEvent(const std::string& home,
                                                   const std::string& identifier,
                                                   const std::function<bool()>& isOver) {
  std::optional<std::string> origin;
  const auto done = performAsOwnerOf(home, kFile, [&] {
    const Database database = open(stringWithFormat("%@/%@", home, kFile));
    if (!database) return;  // There is no memory even for the failure.
    bound(database.get(), isOver);
    origin = query(database.get(), identifier);
  });
  if (!done) logOpenFailure();
  return origin;
}
