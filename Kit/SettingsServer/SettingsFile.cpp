#include "Kit/SettingsServer/SettingsFile.h"

#include <cerrno>
#include <cstdio>
#include <utility>

using platform::Data;
using platform::Error;
using platform::ErrorCode;
using platform::Result;

namespace {

constexpr char kVersion[] = "1";

// More changes than any file has seen; adding one more does not overflow.
constexpr std::int64_t kMostChanges = std::int64_t{1} << 62;

constexpr char kSchema[] =
    "BEGIN;"
    "CREATE TABLE state(changes INTEGER NOT NULL);"
    "INSERT INTO state VALUES(0);"
    "CREATE TABLE setting(domain TEXT NOT NULL, layer INTEGER NOT NULL, key TEXT NOT NULL,"
    " value BLOB NOT NULL, version INTEGER NOT NULL, PRIMARY KEY(domain, layer, key))"
    " WITHOUT ROWID;"
    "CREATE TABLE blob(domain TEXT NOT NULL, key TEXT NOT NULL, value BLOB NOT NULL,"
    " PRIMARY KEY(domain, key)) WITHOUT ROWID;"
    "PRAGMA user_version = 1;"
    "COMMIT;";

Result<void> setFileAside(const std::string& path) {
  // A log belongs to its file: the new file must not take over the old one's log.
  for (const char* ending : {"-wal", "-journal", "-shm", ""}) {
    const std::string file = path + ending;
    if (std::rename(file.c_str(), (path + ".damaged" + ending).c_str()) != 0 && errno != ENOENT)
      return std::unexpected(Error{ErrorCode::kSystem, errno, "setting " + file + " aside"});
  }
  return {};
}

}  // namespace

Result<SettingsFile> SettingsFile::open(const std::string& path,
                                        const std::function<void(std::string_view)>& setAside,
                                        std::chrono::milliseconds timeOut) {
  auto file = openChecked(path, timeOut);
  if (file || file.error().code != ErrorCode::kInvalid) return file;
  if (auto done = setFileAside(path); !done) return std::unexpected(done.error());
  setAside(describe(file.error()) + "; it is kept as " + path +
           ".damaged, and all settings begin anew");
  return openChecked(path, timeOut);
}

Result<SettingsFile> SettingsFile::openChecked(const std::string& path,
                                               std::chrono::milliseconds timeOut) {
  auto database = SqliteDatabase::open(path, timeOut);
  if (!database) return std::unexpected(database.error());
  SettingsFile file(std::move(*database));
  if (auto sound = file.check(path); !sound) return std::unexpected(sound.error());
  return file;
}

Result<void> SettingsFile::check(const std::string& path) {
  const auto fault = textOf("PRAGMA quick_check(1)");
  if (!fault) return std::unexpected(fault.error());
  if (*fault != "ok")
    return std::unexpected(Error{ErrorCode::kInvalid, 0, path + ": damaged: " + *fault});
  const auto version = textOf("SELECT CAST(user_version AS TEXT) FROM pragma_user_version");
  if (!version) return std::unexpected(version.error());
  const auto tables = textOf("SELECT CAST(count(*) AS TEXT) FROM sqlite_schema");
  if (!tables) return std::unexpected(tables.error());
  if (*version == "0" && *tables == "0") return database_.execute(kSchema);
  if (*version != kVersion) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0,
                                 path + ": is of version " + *version +
                                     ", or is something else; this program knows version " +
                                     kVersion});
  }
  const auto counted = changes();
  if (!counted) return std::unexpected(counted.error());
  if (*counted < 0 || *counted > kMostChanges) {
    return std::unexpected(Error{
        ErrorCode::kInvalid, 0, path + ": damaged: it does not tell how many changes it has seen"});
  }
  return read([](const Row&) {});
}

Result<std::string> SettingsFile::textOf(std::string_view sql) {
  auto statement = database_.prepare(sql);
  if (!statement) return std::unexpected(statement.error());
  const auto row = statement->step();
  if (!row) return std::unexpected(row.error());
  return std::string(*row ? statement->text(0) : "");
}

Result<std::int64_t> SettingsFile::changes() {
  auto statement = database_.prepare("SELECT changes FROM state WHERE typeof(changes) = 'integer'");
  if (!statement) return std::unexpected(statement.error());
  const auto row = statement->step();
  if (!row) return std::unexpected(row.error());
  return *row ? statement->integer(0) : -1;
}

Result<void> SettingsFile::read(const std::function<void(const Row&)>& each) {
  auto statement = database_.prepare("SELECT domain, layer, key, value, version FROM setting");
  if (!statement) return std::unexpected(statement.error());
  for (;;) {
    const auto row = statement->step();
    if (!row) return std::unexpected(row.error());
    if (!*row) return {};
    const auto value = statement->blob(3);
    each({std::string(statement->text(0)),
          statement->integer(1) == 0 ? SettingsLayer::kDefaults : SettingsLayer::kValues,
          std::string(statement->text(2)), Data(value.begin(), value.end()),
          statement->integer(4)});
  }
}

Result<void> SettingsFile::writeRow(const Row& row) {
  auto statement = database_.prepare(
      row.value ? "INSERT OR REPLACE INTO setting(domain, layer, key, value, version)"
                  " VALUES(?1, ?2, ?3, ?4, ?5)"
                : "DELETE FROM setting WHERE domain = ?1 AND layer = ?2 AND key = ?3");
  if (!statement) return std::unexpected(statement.error());
  statement->bindText(1, row.domain)
      .bindInteger(2, static_cast<std::int64_t>(row.layer))
      .bindText(3, row.key);
  if (row.value) statement->bindBlob(4, *row.value).bindInteger(5, row.version);
  return statement->run();
}

Result<void> SettingsFile::write(const std::vector<Row>& rows, std::int64_t changes) {
  if (auto begun = database_.execute("BEGIN IMMEDIATE"); !begun) return begun;
  const auto done = [&]() -> Result<void> {
    for (const Row& row : rows) {
      if (auto written = writeRow(row); !written) return written;
    }
    auto statement = database_.prepare("UPDATE state SET changes = ?1");
    if (!statement) return std::unexpected(statement.error());
    if (auto updated = statement->bindInteger(1, changes).run(); !updated) return updated;
    return {};
  }();
  const auto committed = done ? database_.execute("COMMIT") : done;
  // SQLite may have rolled back by itself, and then rejects this.
  if (!committed) static_cast<void>(database_.execute("ROLLBACK"));
  return committed;
}

Result<std::optional<Data>> SettingsFile::blob(std::string_view domain, std::string_view key) {
  auto statement = database_.prepare("SELECT value FROM blob WHERE domain = ?1 AND key = ?2");
  if (!statement) return std::unexpected(statement.error());
  const auto row = statement->bindText(1, domain).bindText(2, key).step();
  if (!row) return std::unexpected(row.error());
  if (!*row) return std::nullopt;
  const auto bytes = statement->blob(0);
  return Data(bytes.begin(), bytes.end());
}

Result<void> SettingsFile::writeBlob(std::string_view domain, std::string_view key,
                                     const Data& bytes) {
  auto statement =
      database_.prepare("INSERT OR REPLACE INTO blob(domain, key, value) VALUES(?1, ?2, ?3)");
  if (!statement) return std::unexpected(statement.error());
  return statement->bindText(1, domain).bindText(2, key).bindBlob(3, bytes).run();
}

Result<void> SettingsFile::removeBlob(std::string_view domain, std::string_view key) {
  auto statement = database_.prepare("DELETE FROM blob WHERE domain = ?1 AND key = ?2");
  if (!statement) return std::unexpected(statement.error());
  return statement->bindText(1, domain).bindText(2, key).run();
}

Result<std::vector<std::string>> SettingsFile::blobKeys(std::string_view domain) {
  auto statement = database_.prepare("SELECT key FROM blob WHERE domain = ?1 ORDER BY key");
  if (!statement) return std::unexpected(statement.error());
  statement->bindText(1, domain);
  std::vector<std::string> keys;
  for (;;) {
    const auto row = statement->step();
    if (!row) return std::unexpected(row.error());
    if (!*row) return keys;
    keys.emplace_back(statement->text(0));
  }
}
