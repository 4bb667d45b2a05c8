#include "ServiceManager/ServiceManager/QuarantineDatabase.h"

#include <memory>
#include <tuple>

#include <sqlite3.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/FileOwner.h"
#include "Platform/LogSink.h"
#include "Platform/StringFormat.h"

using namespace platform;

namespace {

constexpr char kFile[] = "Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2";
constexpr char kQuery[] =
    "SELECT LSQuarantineOriginURLString FROM LSQuarantineEvent WHERE LSQuarantineEventIdentifier "
    "== ?1";
constexpr int kMaxTextBytes = 1 << 20;
// A table may be a view of its owner's that never ends. A million rows take less.
constexpr int kInstructionsPerCheck = 1'000'000;
constexpr int kMaxChecks = 10;

struct CloseDatabase {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// SQLite opens the file, its journals and what else belongs to it by name, and any of them may be a
// pipe that its owner has put there: without another end SQLite would wait for one for ever. Only
// the daemon's one database is concerned.
void makeSqliteOpenWithoutWaiting() {
  static const int kDone = [] {
    sqlite3_vfs* system = sqlite3_vfs_find(nullptr);
    return system->xSetSystemCall(system, "open",
                                  reinterpret_cast<sqlite3_syscall_ptr>(&openWithoutWaiting));
  }();
  std::ignore = kDone;
}

// The query is asked also where this has failed, and fails then.
Database open(const std::string& path) {
  makeSqliteOpenWithoutWaiting();
  sqlite3* opened = nullptr;
  if (sqlite3_open(path.c_str(), &opened) != SQLITE_OK) {
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Failed to open database!");
  }
  return Database(opened);
}

// `checks` counts down, and outlives the use of the database.
void bound(sqlite3* database, int& checks) {
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kMaxTextBytes);
  sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  // Otherwise a log written ahead would come with a file that we map, and its owner could cut it
  // off under us.
  sqlite3_exec(database, "PRAGMA locking_mode = EXCLUSIVE", nullptr, nullptr, nullptr);
  sqlite3_progress_handler(
      database, kInstructionsPerCheck,
      [](void* left) { return --*static_cast<int*>(left) < 0 ? 1 : 0; }, &checks);
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
  return std::string(reinterpret_cast<const char*>(text));
}

}  // namespace

std::optional<std::string> originOfQuarantineEvent(const std::string& home,
                                                   const std::string& identifier) {
  std::optional<std::string> origin;
  performAsOwnerOf(home, [&] {
    const Database database = open(stringWithFormat("%@/%@", home, kFile));
    if (!database) return;  // Without memory even for a failure.
    int checks = kMaxChecks;
    bound(database.get(), checks);
    origin = query(database.get(), identifier);
  });
  return origin;
}
