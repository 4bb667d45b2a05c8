#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Examples/DemoProduct/Settings/Sqlite.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// What registered defaults and stored values are kept apart by; a value stands above its default.
enum class SettingsLayer : std::uint8_t { kDefaults, kValues };

// The settings as they lie on the disk: all domains in one SQLite file. Each change is one
// transaction, which a killed process leaves done or not begun. Not for several threads; blocks as
// long as the disk does.
class SettingsFile {
 public:
  // Opens the file, makes it where it is missing, and checks the whole of it. One that is damaged,
  // holds something else, or is of another version of this program is set aside under its name with
  // ".damaged" behind (in the place of an earlier one), which `setAside` is told, and a new one
  // begun. Fails where that can't be, or the system refuses, or another program has not let go of
  // the file after `patience`; the file is left as it is then.
  static platform::Result<SettingsFile> open(
      const std::string& path, const std::function<void(std::string_view)>& setAside,
      std::chrono::milliseconds patience = SqliteDatabase::kPatience);

  struct Row {
    std::string domain;
    SettingsLayer layer = SettingsLayer::kValues;
    std::string key;
    // A property list. In a change, nothing removes the row.
    std::optional<platform::Data> value;
    std::int64_t version = 0;
  };
  // Calls `each` for every setting.
  platform::Result<void> read(const std::function<void(const Row&)>& each);
  // The number that the latest change had; 0 before the first. Never falls. Leaves room to count
  // further.
  platform::Result<std::int64_t> changes();

  // Makes all of these changes, and remembers `changes`; on failure none.
  platform::Result<void> write(const std::vector<Row>& rows, std::int64_t changes);

  // Bytes that somebody keeps under a key, apart from the settings. Nothing where there are none.
  platform::Result<std::optional<platform::Data>> blob(std::string_view domain,
                                                       std::string_view key);
  platform::Result<void> writeBlob(std::string_view domain, std::string_view key,
                                   const platform::Data& bytes);
  platform::Result<void> removeBlob(std::string_view domain, std::string_view key);
  platform::Result<std::vector<std::string>> blobKeys(std::string_view domain);

 private:
  explicit SettingsFile(SqliteDatabase database) : database_(std::move(database)) {}
  static platform::Result<SettingsFile> openChecked(const std::string& path,
                                                    std::chrono::milliseconds patience);
  platform::Result<void> check(const std::string& path);
  // The first column of the first row.
  platform::Result<std::string> textOf(std::string_view sql);
  platform::Result<void> writeRow(const Row& row);

  SqliteDatabase database_;
};
