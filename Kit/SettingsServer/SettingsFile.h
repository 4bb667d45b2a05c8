#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Kit/SettingsServer/Sqlite.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// Separates registered defaults from stored values; a value takes precedence over its default.
enum class SettingsLayer : std::uint8_t { kDefaults, kValues };

// The settings on the disk: all domains in one SQLite file. Each change is one transaction, which a
// killed process leaves either done or not begun. Not thread-safe; calls block for the disk.
class SettingsFile {
 public:
  // Opens the file, creates it if it is missing, and checks all of it. If it is damaged, holds
  // other data, or comes from another version of this program, it is renamed to end in ".damaged"
  // (replacing an earlier one), `setAside` gets the reason, and a new file is created. An error
  // leaves the file as it is: if the renaming or the system fails, or another program still holds
  // the file after `timeOut`.
  static platform::Result<SettingsFile> open(
      const std::string& path, const std::function<void(std::string_view)>& setAside,
      std::chrono::milliseconds timeOut = SqliteDatabase::kTimeOut);

  struct Row {
    std::string domain;
    SettingsLayer layer = SettingsLayer::kValues;
    std::string key;
    // A property list. In a change, no value removes the row.
    std::optional<platform::Data> value;
    std::int64_t version = 0;
  };
  // Calls `each` for every setting.
  platform::Result<void> read(const std::function<void(const Row&)>& each);
  // The number of the latest change; 0 before the first. Never falls, and never overflows at the
  // next change.
  platform::Result<std::int64_t> changes();

  // Makes all of these changes and stores `changes`; on failure none of it.
  platform::Result<void> write(const std::vector<Row>& rows, std::int64_t changes);

  // The bytes that a program keeps under a key, apart from the settings; nothing if there are none.
  platform::Result<std::optional<platform::Data>> blob(std::string_view domain,
                                                       std::string_view key);
  platform::Result<void> writeBlob(std::string_view domain, std::string_view key,
                                   const platform::Data& bytes);
  platform::Result<void> removeBlob(std::string_view domain, std::string_view key);
  platform::Result<std::vector<std::string>> blobKeys(std::string_view domain);

 private:
  explicit SettingsFile(SqliteDatabase database) : database_(std::move(database)) {}
  static platform::Result<SettingsFile> openChecked(const std::string& path,
                                                    std::chrono::milliseconds timeOut);
  platform::Result<void> check(const std::string& path);
  // The first column of the first row.
  platform::Result<std::string> textOf(std::string_view sql);
  platform::Result<void> writeRow(const Row& row);

  SqliteDatabase database_;
};
