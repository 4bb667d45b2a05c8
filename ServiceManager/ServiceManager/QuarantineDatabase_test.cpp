#include "ServiceManager/ServiceManager/QuarantineDatabase.h"

#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/TemporaryFolder.h"

namespace {

using namespace platform;

constexpr char kPreferences[] = "Library/Preferences/";
constexpr char kFile[] = "Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2";
constexpr char kUrl[] = "https://example.com/id";

struct CloseDatabase {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

// A user's home, whose owner means no good.
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
  std::optional<std::string> origin() const { return originOfQuarantineEvent(home_.path(), "id"); }

  TemporaryFolder home_;
};

TEST_F(QuarantineDatabaseTest, TellsTheOriginOfAnEvent) {
  fill(open());
  EXPECT_EQ(origin(), kUrl);
  EXPECT_EQ(originOfQuarantineEvent(home_.path(), "' OR '' == '"), std::nullopt);
}

// Opening a pipe for reading waits for a writer, of which there is none.
TEST_F(QuarantineDatabaseTest, PipesInThePlaceOfItsFilesAreNotWaitedFor) {
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
    origin();  // Returns, whatever it says.
    ::unlink((file() + beside).c_str());
  }
}

TEST_F(QuarantineDatabaseTest, ALogWrittenAheadIsReadWithoutAMappedFile) {
  const Database database = open();
  execute(database, "PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 0");
  fill(database);
  // As it stands while its owner works on it, and as a crash would leave it.
  TemporaryFolder crashed;
  std::filesystem::create_directories(crashed.path(kPreferences));
  for (const char* beside : {"", "-wal"}) {
    std::filesystem::copy_file(file() + beside, crashed.path(kFile) + beside);
  }
  EXPECT_EQ(origin(), std::nullopt);  // In use.
  EXPECT_EQ(originOfQuarantineEvent(crashed.path(), "id"), kUrl);
  EXPECT_FALSE(std::filesystem::exists(crashed.path(kFile) + std::string("-shm")));
}

TEST_F(QuarantineDatabaseTest, FoldersAndDevicesTellNothing) {
  ASSERT_EQ(::mkdir(file().c_str(), 0700), 0);
  EXPECT_EQ(origin(), std::nullopt);
  ASSERT_EQ(::rmdir(file().c_str()), 0);
  ASSERT_EQ(::symlink("/dev/zero", file().c_str()), 0);
  EXPECT_EQ(origin(), std::nullopt);
}

// What only root may read, a link of the user's does not lead to.
TEST_F(QuarantineDatabaseTest, ItIsOpenedWithTheRightsOfTheHomesOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root has other rights to take";
  TemporaryFolder another;
  std::filesystem::create_directories(another.path(kPreferences));
  fill(open());
  ASSERT_EQ(::chmod(file().c_str(), 0660), 0);  // Of root and its group.
  ASSERT_EQ(::symlink(file().c_str(), another.path(kFile).c_str()), 0);
  for (const std::string& folder : {home_.path(), home_.path("Library"), home_.path(kPreferences),
                                    another.path("Library"), another.path(kPreferences)}) {
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
  }
  ASSERT_EQ(::chmod(another.path().c_str(), 0755), 0);
  ASSERT_EQ(originOfQuarantineEvent(another.path(), "id"), kUrl);
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ(::chown(another.path().c_str(), kNobody, kNobody), 0);
  EXPECT_EQ(originOfQuarantineEvent(another.path(), "id"), std::nullopt);
  EXPECT_EQ(origin(), kUrl);  // The rights are root's again.
}

}  // namespace
