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

// A statement on its way. Belongs to its database, which outlives it, and to that one's thread.
class SqliteStatement {
 public:
  // Parameters are numbered from 1; what is bound is copied.
  SqliteStatement& bindText(int parameter, std::string_view text);
  SqliteStatement& bindBlob(int parameter, std::span<const std::uint8_t> bytes);
  SqliteStatement& bindInteger(int parameter, std::int64_t integer);

  // Goes on to the next row; false where there is none. Also fails for what could not be bound.
  platform::Result<bool> step();
  // For a statement without rows.
  platform::Result<void> run();

  // Of the row; columns are numbered from 0. Valid until the next step, and empty or 0 where the
  // column holds another type.
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

// A database in one file, ours alone while it is open. Every error names the file and says what
// SQLite says of it: kInvalid for one that is damaged or holds something else, kExhausted for a
// full disk, kDenied, else kSystem. Not for several threads; calls block as long as the disk does.
class SqliteDatabase {
 public:
  static constexpr std::chrono::milliseconds kPatience{5000};

  // Opens the file, or makes it. Its folder, in which SQLite keeps a log beside it, decides who may
  // read it. A symbolic link is refused. Waits so long for another program to let go of it.
  //
  // What has been committed survives the end of this program, however it ends. A power failure may
  // cost the last changes but never the file.
  static platform::Result<SqliteDatabase> open(const std::string& path,
                                               std::chrono::milliseconds patience = kPatience);

  // Without rows; several statements may stand in `sql`.
  platform::Result<void> execute(const char* sql);
  platform::Result<SqliteStatement> prepare(std::string_view sql);

  // The error that the last call on this database ended with.
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
