#include "Kit/SettingsServer/Sqlite.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

using platform::Error;
using platform::ErrorCode;
using platform::Result;

namespace {

ErrorCode codeOf(int status) {
  switch (status & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR:  // "no such table", among others: the file holds something else
      return ErrorCode::kInvalid;
    case SQLITE_FULL:
    case SQLITE_TOOBIG:
    case SQLITE_NOMEM:
      return ErrorCode::kExhausted;
    case SQLITE_PERM:
    case SQLITE_READONLY:
      return ErrorCode::kDenied;
    default:
      return ErrorCode::kSystem;
  }
}

Error errorOf(sqlite3* database, const std::string& path) {
  const int status = sqlite3_extended_errcode(database);
  return {
      codeOf(status), sqlite3_system_errno(database),
      path + ": " + sqlite3_errmsg(database) + " (SQLite's error " + std::to_string(status) + ")"};
}

// SQLite gives a log that it makes the mode of the database, and keeps the mode of one that is
// there. Errors are left to SQLite, which opens the same file. An existing file is not opened here,
// since closing it would release the locks of this process on it.
void restrictToOwner(const std::string& path) {
  constexpr mode_t kOwnerOnly = 0600;
  const int made =
      ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
  if (made >= 0) {
    ::close(made);
    return;
  }
  if (errno != EEXIST) return;
  for (const char* ending : {"", "-wal", "-shm"})
    ::fchmodat(AT_FDCWD, (path + ending).c_str(), kOwnerOnly, AT_SYMLINK_NOFOLLOW);
}

}  // namespace

void SqliteStatement::Finalizer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

void SqliteStatement::note(int status) {
  if (status != SQLITE_OK) bindStatus_ = status;
}

SqliteStatement& SqliteStatement::bindText(int parameter, std::string_view text) {
  note(sqlite3_bind_text64(statement_.get(), parameter, text.data(), text.size(), SQLITE_TRANSIENT,
                           SQLITE_UTF8));
  return *this;
}

SqliteStatement& SqliteStatement::bindBlob(int parameter, std::span<const std::uint8_t> bytes) {
  // A null pointer would be bound as NULL.
  const void* data = bytes.empty() ? static_cast<const void*>("") : bytes.data();
  note(sqlite3_bind_blob64(statement_.get(), parameter, data, bytes.size(), SQLITE_TRANSIENT));
  return *this;
}

SqliteStatement& SqliteStatement::bindInteger(int parameter, std::int64_t integer) {
  note(sqlite3_bind_int64(statement_.get(), parameter, integer));
  return *this;
}

Result<bool> SqliteStatement::step() {
  sqlite3* database = sqlite3_db_handle(statement_.get());
  const char* file = sqlite3_db_filename(database, "main");
  const std::string path = file == nullptr ? "" : file;
  if (bindStatus_ != SQLITE_OK)
    return std::unexpected(
        Error{codeOf(bindStatus_), 0, path + ": " + sqlite3_errstr(bindStatus_)});
  switch (sqlite3_step(statement_.get())) {
    case SQLITE_ROW:
      return true;
    case SQLITE_DONE:
      return false;
    default:
      return std::unexpected(errorOf(database, path));
  }
}

Result<void> SqliteStatement::run() {
  const auto row = step();
  if (!row) return std::unexpected(row.error());
  return {};
}

std::string_view SqliteStatement::text(int column) const {
  if (sqlite3_column_type(statement_.get(), column) != SQLITE_TEXT) return {};
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
  return {text, static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

std::span<const std::uint8_t> SqliteStatement::blob(int column) const {
  if (sqlite3_column_type(statement_.get(), column) != SQLITE_BLOB) return {};
  const auto* bytes =
      static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_.get(), column));
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

std::int64_t SqliteStatement::integer(int column) const {
  if (sqlite3_column_type(statement_.get(), column) != SQLITE_INTEGER) return 0;
  return sqlite3_column_int64(statement_.get(), column);
}

void SqliteDatabase::Closer::operator()(sqlite3* database) const { sqlite3_close_v2(database); }

Result<SqliteDatabase> SqliteDatabase::open(const std::string& path,
                                            std::chrono::milliseconds timeOut) {
  restrictToOwner(path);
  sqlite3* opened = nullptr;
  const int status =
      sqlite3_open_v2(path.c_str(), &opened,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW |
                          SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
                      nullptr);
  SqliteDatabase database(opened, path);
  if (opened == nullptr) return std::unexpected(Error{ErrorCode::kExhausted, 0, path});
  if (status != SQLITE_OK) return std::unexpected(database.lastError());
  sqlite3_busy_timeout(opened, static_cast<int>(timeOut.count()));
  sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  // Exclusive, since no other program uses the file; the log then needs no shared memory. A commit
  // has reached the kernel when it returns, so it survives any end of this process.
  if (auto done = database.execute("PRAGMA cell_size_check = ON;"
                                   "PRAGMA locking_mode = EXCLUSIVE;"
                                   "PRAGMA journal_mode = WAL;"
                                   "PRAGMA synchronous = NORMAL;"
                                   "BEGIN IMMEDIATE; COMMIT;");
      !done) {
    return std::unexpected(done.error());
  }
  return database;
}

Result<void> SqliteDatabase::execute(const char* sql) {
  if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    return std::unexpected(lastError());
  return {};
}

Result<SqliteStatement> SqliteDatabase::prepare(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(database_.get(), sql.data(), static_cast<int>(sql.size()), &statement,
                         nullptr) != SQLITE_OK) {
    return std::unexpected(lastError());
  }
  return SqliteStatement(statement);
}

Error SqliteDatabase::lastError() const { return errorOf(database_.get(), path_); }
