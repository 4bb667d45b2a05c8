// Settings files that can't be opened or written: the caller gets an error, and no setting is lost.

#include "Kit/SettingsServer/SettingsFile.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include "Kit/SettingsServer/SettingsStore.h"
#include "Platform/Testing/Machine/FileSizeLimit.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

using namespace std::chrono_literals;
using platform::Data;
using platform::ErrorCode;
using platform::FullDisk;
using platform::Value;
using testing::StartsWith;

constexpr char kDomain[] = "com.vantor.One";

class SettingsFileTest : public testing::Test {
 protected:
  auto open() {
    return SettingsFile::open(path_, [](std::string_view why) { ADD_FAILURE() << why; }, 0ms);
  }
  static SettingsFile::Row row(const std::string& key, std::size_t bytes) {
    return {kDomain, SettingsLayer::kValues, key, Data(bytes, 1), 1};
  }
  static std::vector<std::string> keysIn(SettingsFile& file) {
    std::vector<std::string> keys;
    EXPECT_TRUE(file.read([&](const SettingsFile::Row& each) { keys.push_back(each.key); }));
    return keys;
  }

  platform::TemporaryFolder folder_;
  const std::string path_ = folder_.path("settings.sqlite");
};

TEST_F(SettingsFileTest, AFileThatAnotherProgramHoldsIsLeftAlone) {
  ASSERT_TRUE(open()->write({row("kept", 1)}, 1));
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  const auto refused = open();
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kSystem);
  EXPECT_THAT(describe(refused.error()), StartsWith(path_ + ": database is locked"));
  EXPECT_FALSE(std::filesystem::exists(path_ + ".damaged"));
  sqlite3_close(other);
  auto file = open();
  ASSERT_TRUE(file) << describe(file.error());
  EXPECT_THAT(keysIn(*file), testing::ElementsAre("kept"));
}

TEST_F(SettingsFileTest, AnOpenFileCannotBeOpenedAgain) {
  const auto file = open();
  ASSERT_TRUE(file);
  EXPECT_FALSE(open());
}

TEST_F(SettingsFileTest, AReadOnlyFileIsLeftAlone) {
  ASSERT_TRUE(open()->write({row("kept", 1)}, 1));
  const std::uintmax_t size = std::filesystem::file_size(path_);
  std::filesystem::permissions(path_, std::filesystem::perms(0444));
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0555));
  // Root may write everything, so drop that permission for the test.
  const bool isRoot = ::geteuid() == 0;
  if (isRoot) ::setfsuid(65534);
  const auto refused = open();
  if (isRoot) ::setfsuid(0);
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
  std::filesystem::permissions(path_, std::filesystem::perms(0644));
  ASSERT_FALSE(refused);
  EXPECT_THAT(describe(refused.error()), StartsWith(path_ + ": "));
  EXPECT_NE(refused.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(std::filesystem::file_size(path_), size);
  auto file = open();
  ASSERT_TRUE(file) << describe(file.error());
  EXPECT_THAT(keysIn(*file), testing::ElementsAre("kept"));
}

TEST_F(SettingsFileTest, AChangeOnAFullDiskFailsAndTheNextSucceeds) {
  auto file = open();
  ASSERT_TRUE(file) << describe(file.error());
  ASSERT_TRUE(file->write({row("kept", 1)}, 1));
  {
    const FullDisk full(std::filesystem::file_size(path_ + "-wal"));
    const auto refused = file->write({row("large", 100'000), row("small", 1)}, 2);
    ASSERT_FALSE(refused);
    EXPECT_THAT(describe(refused.error()), StartsWith(path_ + ": "));
    EXPECT_FALSE(file->writeBlob(kDomain, "blob", Data(100'000)));
    EXPECT_THAT(keysIn(*file), testing::ElementsAre("kept"));
    EXPECT_EQ(file->changes(), 1);
  }
  EXPECT_TRUE(file->write({row("later", 100'000)}, 2));
  file = open();
  ASSERT_FALSE(file);  // The earlier one is still open.
  file = open();
  ASSERT_TRUE(file) << describe(file.error());
  EXPECT_THAT(keysIn(*file), testing::UnorderedElementsAre("kept", "later"));
  EXPECT_EQ(file->changes(), 2);
  EXPECT_EQ(file->blob(kDomain, "blob"), std::nullopt);
}

TEST_F(SettingsFileTest, AFailedChangeLeavesTheSettingAsItWas) {
  const auto store = SettingsStore::open(path_, {kDomain}, [](std::string_view) {});
  ASSERT_TRUE(store);
  ASSERT_TRUE((*store)->set(kDomain, "a", 1));
  const Value versions = (*store)->versions(kDomain);
  {
    const FullDisk full(std::filesystem::file_size(path_ + "-wal"));
    EXPECT_FALSE((*store)->set(kDomain, "a", 2));
    EXPECT_FALSE((*store)->registerDefaults(kDomain, {{"a", 3}, {"b", 3}}));
    EXPECT_FALSE((*store)->removeValues(kDomain, {"a"}));
    EXPECT_FALSE((*store)->persistBlob(kDomain, "blob", Data{1}));
  }
  EXPECT_EQ((*store)->value(kDomain, "a"), Value(1));
  EXPECT_EQ((*store)->value(kDomain, "b"), Value());
  EXPECT_EQ(Value((*store)->versions(kDomain)), versions);
  EXPECT_TRUE((*store)->set(kDomain, "a", 4));
}

TEST_F(SettingsFileTest, OnAFullDiskNoNewFileIsMade) {
  const FullDisk full(0);
  const auto refused = open();
  ASSERT_FALSE(refused);
  EXPECT_THAT(describe(refused.error()), StartsWith(path_ + ": "));
}

}  // namespace
