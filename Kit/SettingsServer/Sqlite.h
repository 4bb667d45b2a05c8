#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

struct sqlite3;
struct sqlite3_stmt;

// A prepared statement. It belongs to its database, which outlives it, and to the database's
// thread.
class SqliteStatement {
 public:
  // Parameters are numbered from 1; values are copied.
  SqliteStatement& bindText(int parameter, std::string_view text);
  SqliteStatement& bindBlob(int parameter, std::span<const std::uint8_t> bytes);
  SqliteStatement& bindInteger(int parameter, std::int64_t integer);

  // Goes to the next row; false after the last. Also reports a failed bind.
  platform::Result<bool> step();
  // For a statement without rows.
  platform::Result<void> run();

  // A value of the row; columns are numbered from 0. Valid until the next step, and empty or 0 if
  // the column holds another type.
  std::string_view text(int column) const;
  std::span<const std::uint8_t> blob(int column) const;
  std::int64_t integer(int column) const;

 private:
  friend class SqliteDatabase;
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  explicit SqliteStatement(sqlite3_stmt* statement) : statement_(statement) {}
  void note(int status);

  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
  int bindStatus_ = 0;
};

// A database in one file, locked by this program while it is open. Every error names the file and
// quotes SQLite: kInvalid for a file that is damaged or holds other data, kExhausted for a full
// disk, kDenied, else kSystem. Not thread-safe; calls block for the disk.
class SqliteDatabase {
 public:
  static constexpr std::chrono::milliseconds kTimeOut{5000};

  // Opens the file, or creates it. Only its owner may read it and the log that SQLite keeps beside
  // it. A symbolic link is rejected. Waits for another program to release the file, for
  // `timeOut` at most.
  //
  // A commit survives any end of this program. A power failure may cost the last changes but never
  // the file.
  static platform::Result<SqliteDatabase> open(const std::string& path,
                                               std::chrono::milliseconds timeOut = kTimeOut);

  // Runs statements without rows; `sql` may hold several.
  platform::Result<void> execute(const char* sql);
  platform::Result<SqliteStatement> prepare(std::string_view sql);

  // The error of the last call on this database.
  platform::Error lastError() const;

 private:
  struct Closer {
    void operator()(sqlite3* database) const;
  };
  SqliteDatabase(sqlite3* database, std::string path)
      : database_(database), path_(std::move(path)) {}

  std::unique_ptr<sqlite3, Closer> database_;
  std::string path_;
};
