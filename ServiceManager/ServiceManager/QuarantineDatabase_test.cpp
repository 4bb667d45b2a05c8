#include "ServiceManager/ServiceManager/QuarantineDatabase.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Files/FileOwner.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Texts/Utf8.h"

namespace {

using namespace platform;

constexpr char kPreferences[] = "Library/Preferences/";
constexpr char kFile[] = "Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2";
constexpr char kUrl[] = "https://example.com/id";

struct CloseDatabase {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

// The home of a malicious user.
class QuarantineDatabaseTest : public testing::Test {
 protected:
  QuarantineDatabaseTest() { std::filesystem::create_directories(home_.path(kPreferences)); }

  Database open() const {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(file().c_str(), &database), SQLITE_OK);
    return Database(database);
  }
  static void execute(const Database& database, const std::string& statements) {
    EXPECT_EQ(sqlite3_exec(database.get(), statements.c_str(), nullptr, nullptr, nullptr),
              SQLITE_OK)
        << sqlite3_errmsg(database.get());
  }
  void fill(const Database& database) const {
    execute(database,
            "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier TEXT, "
            "LSQuarantineOriginURLString TEXT); INSERT INTO LSQuarantineEvent VALUES ('id', '" +
                std::string(kUrl) + "');");
  }
  std::string file() const { return home_.path(kFile); }
  std::optional<std::string> origin() const { return originIn(home_); }
  static std::optional<std::string> originIn(const TemporaryFolder& home,
                                             const std::string& identifier = "id") {
    return originOfQuarantineEvent(home.path(), identifier, [] { return false; });
  }

  TemporaryFolder home_;
};

TEST_F(QuarantineDatabaseTest, FindsTheOriginOfAnEvent) {
  fill(open());
  EXPECT_EQ(origin(), kUrl);
  EXPECT_EQ(originIn(home_, "' OR '' == '"), std::nullopt);
}

TEST_F(QuarantineDatabaseTest, AnOriginMustBeAText) {
  for (const char* origin : {"CAST(x'68ff' AS TEXT)", "x'ff'", "x'edb2a9'"}) {
    execute(open(),
            "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier TEXT, "
            "LSQuarantineOriginURLString); INSERT INTO LSQuarantineEvent VALUES ('id', " +
                std::string(origin) + ")");
    EXPECT_EQ(this->origin(), std::nullopt) << origin;
    ASSERT_EQ(::unlink(file().c_str()), 0);
  }
  execute(open(),
          "PRAGMA encoding = 'UTF-16le'; CREATE TABLE LSQuarantineEvent "
          "(LSQuarantineEventIdentifier TEXT, LSQuarantineOriginURLString TEXT); INSERT INTO "
          "LSQuarantineEvent VALUES ('id', 'h' || CAST(x'00d8' AS TEXT))");
  const auto origin = this->origin();
  EXPECT_TRUE(!origin || !platform::findIllFormedUtf8(*origin));
}

// The files of a database, by the paths of this process's descriptors.
std::size_t openFilesBelow(const std::string& folder) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto target = std::filesystem::read_symlink(entry.path(), gone);
    if (!gone && target.string().starts_with(folder)) ++count;
  }
  return count;
}

TEST_F(QuarantineDatabaseTest, ItsFilesAreClosedOnEveryPath) {
  fill(open());
  EXPECT_EQ(origin(), kUrl);
  EXPECT_EQ(originIn(home_, "nobody"), std::nullopt);
  {
    const Database locked = open();
    execute(locked, "BEGIN EXCLUSIVE");
    EXPECT_EQ(origin(), std::nullopt);
  }
  EXPECT_EQ(openFilesBelow(home_.path()), 0u);
  execute(open(), "DROP TABLE LSQuarantineEvent");  // Then the query can't be prepared.
  EXPECT_EQ(origin(), std::nullopt);
  std::filesystem::resize_file(file(), 100);
  EXPECT_EQ(origin(), std::nullopt);
  EXPECT_EQ(openFilesBelow(home_.path()), 0u);
}

// Opening a pipe for reading waits for a writer, and there is none.
TEST_F(QuarantineDatabaseTest, APipeInAFilesPlaceDoesNotBlock) {
  for (const mode_t mode : {0600, 0400}) {
    ASSERT_EQ(::mkfifo(file().c_str(), mode), 0);
    EXPECT_EQ(origin(), std::nullopt);
    ASSERT_EQ(::unlink(file().c_str()), 0);
  }
  fill(open());
  const std::string journal = file() + "-journal";
  ASSERT_EQ(::mkfifo(journal.c_str(), 0400), 0);
  EXPECT_EQ(origin(), std::nullopt);
  ASSERT_EQ(::unlink(journal.c_str()), 0);

  execute(open(), "PRAGMA journal_mode = WAL");
  for (const char* beside : {"-wal", "-shm"}) {
    ::unlink((file() + beside).c_str());
    ASSERT_EQ(::mkfifo((file() + beside).c_str(), 0400), 0);
    origin();  // It must return, whatever the result is.
    ::unlink((file() + beside).c_str());
  }
}

TEST_F(QuarantineDatabaseTest, AWriteAheadLogIsReadWithoutMapping) {
  const Database database = open();
  execute(database, "PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 0");
  fill(database);
  // The state of the files while the owner uses the database, and after a crash.
  TemporaryFolder crashed;
  std::filesystem::create_directories(crashed.path(kPreferences));
  for (const char* beside : {"", "-wal"}) {
    std::filesystem::copy_file(file() + beside, crashed.path(kFile) + beside);
  }
  EXPECT_EQ(origin(), std::nullopt);  // The database is in use.
  EXPECT_EQ(originIn(crashed), kUrl);
  EXPECT_FALSE(std::filesystem::exists(crashed.path(kFile) + std::string("-shm")));
  // It was not written into the database.
  EXPECT_TRUE(std::filesystem::exists(crashed.path(kFile) + std::string("-wal")));
}

TEST_F(QuarantineDatabaseTest, FoldersAndDevicesAreNoDatabases) {
  ASSERT_EQ(::mkdir(file().c_str(), 0700), 0);
  EXPECT_EQ(origin(), std::nullopt);
  ASSERT_EQ(::rmdir(file().c_str()), 0);
  ASSERT_EQ(::symlink("/dev/zero", file().c_str()), 0);
  EXPECT_EQ(origin(), std::nullopt);
}

// One call of it would compare bytes for half a minute. An insertion would compute it, too.
TEST_F(QuarantineDatabaseTest, AFunctionThatTakesForEverIsEnded) {
  execute(open(),
          "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier TEXT); "
          "INSERT INTO LSQuarantineEvent VALUES ('id'); ALTER TABLE LSQuarantineEvent ADD COLUMN "
          "LSQuarantineOriginURLString TEXT AS (instr(hex(zeroblob(500000)), "
          "hex(zeroblob(250000)) || 'b'))");
  EXPECT_EQ(origin(), std::nullopt);
}

TEST_F(QuarantineDatabaseTest, NoFunctionOfItsOwnersIsComputed) {
  for (const char* column :
       {"upper('x')", "'a' LIKE '%a%'", "printf('%s', 'x')", "CASE 1 WHEN 1 THEN hex(x'00') END"}) {
    execute(open(), std::string("CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier TEXT, "
                                "LSQuarantineOriginURLString TEXT AS (") +
                        column + ")); INSERT INTO LSQuarantineEvent VALUES ('id');");
    EXPECT_EQ(origin(), std::nullopt) << column;
    ASSERT_EQ(::unlink(file().c_str()), 0);
  }
}

TEST_F(QuarantineDatabaseTest, ViewsAreNotRead) {
  execute(open(),
          "CREATE VIEW LSQuarantineEvent AS SELECT 'id' AS LSQuarantineEventIdentifier, 'url' AS "
          "LSQuarantineOriginURLString");
  EXPECT_EQ(origin(), std::nullopt);
}

TEST_F(QuarantineDatabaseTest, VirtualTablesAreNotRead) {
  execute(open(),
          "CREATE VIRTUAL TABLE LSQuarantineEvent USING fts4(LSQuarantineEventIdentifier, "
          "LSQuarantineOriginURLString); INSERT INTO LSQuarantineEvent VALUES ('id', 'url')");
  EXPECT_EQ(origin(), std::nullopt);
}

TEST_F(QuarantineDatabaseTest, ADatabaseThatIsTooLargeIsNotRead) {
  fill(open());
  const auto isRead = [this](long long size) {
    std::filesystem::resize_file(file(), static_cast<std::uintmax_t>(size));
    return origin() == kUrl;
  };
  EXPECT_TRUE(isRead(kMostFileBytes - 1));
  EXPECT_TRUE(isRead(kMostFileBytes));
  EXPECT_FALSE(isRead(kMostFileBytes + 1));
}

TEST_F(QuarantineDatabaseTest, TextsMayBe16KiBAndNoMore) {
  fill(open());
  for (const std::size_t size : {16383u, 16384u, 16385u}) {
    const std::string url(size, 'u');
    execute(open(), "UPDATE LSQuarantineEvent SET LSQuarantineOriginURLString = '" + url + "'");
    EXPECT_EQ(origin(), size <= 16384 ? std::optional(url) : std::nullopt) << size;
  }
}

// A table with so many rows that `isOver` is called during the query.
class LongQuarantineDatabase : public QuarantineDatabaseTest {
 protected:
  LongQuarantineDatabase() {
    const Database database = open();
    fill(database);
    execute(database,
            "DELETE FROM LSQuarantineEvent; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + "
            "1 FROM n WHERE i < 10000) INSERT INTO LSQuarantineEvent SELECT 'other', 'url' FROM n; "
            "INSERT INTO LSQuarantineEvent VALUES ('id', '" +
                std::string(kUrl) + "')");
  }
};

TEST_F(LongQuarantineDatabase, AQueryEndsWhenItIsOver) {
  int questions = 0;
  EXPECT_EQ(originOfQuarantineEvent(home_.path(), "id",
                                    [&] {
                                      ++questions;
                                      return false;
                                    }),
            kUrl);
  ASSERT_GT(questions, 3);
  questions = 0;
  EXPECT_EQ(originOfQuarantineEvent(home_.path(), "id", [&] { return ++questions == 3; }),
            std::nullopt);
  EXPECT_EQ(questions, 3);
}

// There is room for the tables of any honest schema.
TEST_F(QuarantineDatabaseTest, ItsMemoryIsBounded) {
  fill(open());
  EXPECT_EQ(origin(), kUrl);
  EXPECT_EQ(sqlite3_hard_heap_limit64(-1), 32 << 20);
}

// A link of the user must not lead to a file that only root may read.
TEST_F(QuarantineDatabaseTest, ItIsOpenedWithTheOwnersPermissions) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root has other rights to take";
  TemporaryFolder another;
  std::filesystem::create_directories(another.path(kPreferences));
  fill(open());
  ASSERT_EQ(::chmod(file().c_str(), 0660), 0);  // It belongs to root and its group.
  ASSERT_EQ(::symlink(file().c_str(), another.path(kFile).c_str()), 0);
  for (const std::string& folder : {home_.path(), home_.path("Library"), home_.path(kPreferences),
                                    another.path("Library"), another.path(kPreferences)}) {
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
  }
  ASSERT_EQ(::chmod(another.path().c_str(), 0755), 0);
  ASSERT_EQ(originIn(another), kUrl);
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ(::chown(another.path().c_str(), kNobody, kNobody), 0);
  EXPECT_EQ(originIn(another), std::nullopt);
  EXPECT_EQ(origin(), kUrl);  // The permissions are root's again.

  // It is not opened if only a folder in the home is the user's, either.
  ASSERT_EQ(::chown(another.path().c_str(), 0, 0), 0);
  ASSERT_EQ(::chown(another.path("Library").c_str(), kNobody, kNobody), 0);
  EXPECT_EQ(originIn(another), std::nullopt);
}

}  // namespace
