// Files that the store did not leave like this.

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Kit/SettingsServer/SettingsStore_fixture.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(SettingsStoreTest, ADamagedFileIsSetAsideAndANewOneBegun) {
  ASSERT_TRUE(store_->set(kOne, "a", 1));
  replaceFile("this is no database, but long enough to be taken for one " + std::string(4096, 'x'));
  open();
  EXPECT_TRUE(store_->value(kOne, "a").isNil());
  EXPECT_TRUE(std::filesystem::exists(path_ + ".damaged"));
  EXPECT_THAT(warnings_, ElementsAre(testing::AllOf(HasSubstr(path_), HasSubstr("not a database"),
                                                    HasSubstr("all settings begin anew"))));
  ASSERT_TRUE(store_->set(kOne, "a", 2));
  openAsAfterAKill();
  EXPECT_EQ(store_->value(kOne, "a"), Value(2));
}

TEST_F(SettingsStoreTest, DamageInsideTheFileIsFound) {
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(store_->set(kOne, std::to_string(i), Data(1000, std::uint8_t{7})));
  store_.reset();
  const auto size = std::filesystem::file_size(path_);
  ASSERT_GT(size, 3 * 4096u);
  std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(size - 2 * 4096));
  file << std::string(4096, '\xA5');
  file.close();
  open();
  EXPECT_EQ(warnings_.size(), 1u);
  EXPECT_THAT(store_->dictionaryRepresentation(kOne), IsEmpty());
}

TEST_F(SettingsStoreTest, AFileOfAnotherVersionIsSetAside) {
  execute("PRAGMA user_version = 2");
  open();
  EXPECT_THAT(warnings_, ElementsAre(HasSubstr("is of version 2")));
}

TEST_F(SettingsStoreTest, AFileThatHoldsSomethingElseIsSetAside) {
  execute("DROP TABLE setting; DROP TABLE blob; DROP TABLE state");
  open();
  EXPECT_THAT(warnings_, ElementsAre(HasSubstr("no such table")));
  ASSERT_TRUE(store_->set(kOne, "a", 1));
}

TEST_F(SettingsStoreTest, AnEmptyFileCountsAsNew) {
  replaceFile("");
  open();
  EXPECT_THAT(warnings_, IsEmpty());
  EXPECT_TRUE(store_->set(kOne, "a", 1));
}

TEST_F(SettingsStoreTest, OnlyTheOwnerMayReadTheFileAndItsLog) {
  using std::filesystem::perms;
  constexpr perms kOwnerOnly = perms::owner_read | perms::owner_write;
  const std::string log = path_ + "-wal";
  const auto modeOf = [](const std::string& path) {
    return std::filesystem::status(path).permissions();
  };
  ASSERT_TRUE(store_->set(kOne, "a", 1));
  EXPECT_EQ(modeOf(path_), kOwnerOnly);
  EXPECT_EQ(modeOf(log), kOwnerOnly);

  // As an earlier version left them when it was killed.
  store_.reset();
  for (const std::string& path : {path_, log}) {
    std::ofstream(path, std::ios::app).close();
    std::filesystem::permissions(path, kOwnerOnly | perms::group_read | perms::others_read);
  }
  open();
  ASSERT_TRUE(store_->set(kOne, "a", 2));
  EXPECT_EQ(modeOf(path_), kOwnerOnly);
  EXPECT_EQ(modeOf(log), kOwnerOnly);
}

TEST_F(SettingsStoreTest, AnUnreadableSettingIsSkipped) {
  ASSERT_TRUE(store_->set(kOne, "good", 1));
  execute(
      "INSERT INTO setting VALUES('com.vantor.One', 1, 'bad', x'00', 1);"
      "INSERT INTO setting VALUES('com.vantor.One', 1, '', x'00', 1);"
      "INSERT INTO setting VALUES('com.vantor.Unknown', 1, 'a', x'00', 1)");
  open();
  EXPECT_EQ(store_->dictionaryRepresentation(kOne), (Dictionary{{"good", 1}}));
  EXPECT_THAT(warnings_, testing::Contains(testing::AllOf(HasSubstr("\"bad\" of com.vantor.One"),
                                                          HasSubstr("it is left out"))));
  EXPECT_EQ(warnings_.size(), 2u);
}

TEST_F(SettingsStoreTest, OnlyTenSkippedSettingsAreNamed) {
  for (const int many : {9, 10, 11, 5000}) {
    execute(("DELETE FROM setting; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n"
             " WHERE i < " +
             std::to_string(many) +
             ") INSERT INTO setting SELECT 'com.vantor.One', 1, 'key' || i, X'00', 1 FROM n;")
                .c_str());
    warnings_.clear();
    open();
    const std::size_t named = static_cast<std::size_t>(std::min(many, 10));
    ASSERT_EQ(warnings_.size(), named + (many > 10 ? 1 : 0)) << many;
    for (std::size_t i = 0; i < named; ++i) EXPECT_THAT(warnings_[i], HasSubstr("it is left out"));
    if (many > 10) {
      EXPECT_EQ(warnings_.back(),
                path_ + ": " + std::to_string(many - 10) + " more settings are left out");
    }
  }
}

TEST_F(SettingsStoreTest, AnImpossibleCountOfChangesIsDamage) {
  for (const char* sql : {"UPDATE state SET changes = 9223372036854775807",
                          "UPDATE state SET changes = -1", "UPDATE state SET changes = x'01'",
                          "DELETE FROM state", "UPDATE state SET changes = 4611686018427387905"}) {
    SCOPED_TRACE(sql);
    warnings_.clear();
    execute(sql);
    open();
    EXPECT_THAT(warnings_, ElementsAre(HasSubstr("does not tell how many changes it has seen")));
    EXPECT_TRUE(store_->set(kOne, "a", 1));
  }
  warnings_.clear();
  execute("UPDATE state SET changes = 4611686018427387904");
  open();
  EXPECT_THAT(warnings_, IsEmpty());
  ASSERT_TRUE(store_->set(kOne, "a", 2));
  EXPECT_EQ(store_->versions(kOne)["a"], Value(4611686018427387905));
}

TEST_F(SettingsStoreTest, SettingsAboveTheDomainsLimitAreSkipped) {
  // As a program that does not know the limits would.
  ASSERT_TRUE(store_->set(kOne, "0", 1));
  execute(
      "WITH RECURSIVE number(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM number WHERE n < 1024)"
      " INSERT INTO setting SELECT domain, layer, CAST(n AS TEXT), value, 1 FROM setting, number");
  open();
  EXPECT_EQ(store_->dictionaryRepresentation(kOne).size(), SettingsLimits::kDomainSettings);
  EXPECT_THAT(warnings_, ElementsAre(HasSubstr("holds as much as it may; it is left out")));

  warnings_.clear();
  execute("DELETE FROM setting");
  open();
  const Value third = valueOfBytes(SettingsLimits::kSettingBytes);
  ASSERT_TRUE(store_->set(kOne, "a", third));
  ASSERT_TRUE(store_->set(kOne, "b", third));
  ASSERT_TRUE(store_->set(kOne, "c", third));
  openAsAfterAKill();
  EXPECT_THAT(warnings_, IsEmpty());
  EXPECT_EQ(store_->dictionaryRepresentation(kOne).size(), 3u);
  execute("INSERT INTO setting SELECT domain, layer, 'd', value, 1 FROM setting WHERE key = 'a'");
  open();
  EXPECT_EQ(store_->dictionaryRepresentation(kOne).size(), 3u);
  EXPECT_EQ(warnings_.size(), 1u);
}

TEST_F(SettingsStoreTest, ASkippedSettingCanBeRemovedForGood) {
  ASSERT_TRUE(store_->set(kOne, "a", 1));
  execute("INSERT INTO setting VALUES('com.vantor.One', 1, 'bad', x'00', 1)");
  open();
  ASSERT_EQ(warnings_.size(), 1u);
  const auto removed = store_->removeValues(kOne, {"bad"});
  ASSERT_TRUE(removed);
  EXPECT_THAT(*removed, IsEmpty());  // The setting could not be read.
  EXPECT_EQ(store_->versions(kOne), (Dictionary{{"a", 1}}));
  warnings_.clear();
  open();
  EXPECT_THAT(warnings_, IsEmpty());
  EXPECT_EQ(store_->dictionaryRepresentation(kOne), (Dictionary{{"a", 1}}));
}

TEST_F(SettingsStoreTest, SkippedSettingsAreRemovedWithTheOthers) {
  ASSERT_TRUE(store_->set(kOne, "a", 1));
  execute("INSERT INTO setting VALUES('com.vantor.One', 1, 'bad', x'00', 1)");
  open();
  const auto removed = store_->removeValues(kOne, {"bad", "a"});
  ASSERT_TRUE(removed);
  EXPECT_THAT(*removed, ElementsAre("a"));
  warnings_.clear();
  open();
  EXPECT_THAT(warnings_, IsEmpty());
  EXPECT_TRUE(store_->dictionaryRepresentation(kOne).empty());
}

TEST_F(SettingsStoreTest, AnImpossiblePathIsAnError) {
  const auto opened = SettingsStore::open(folder_.path("missing/settings.sqlite"), {kOne},
                                          [](std::string_view) { ADD_FAILURE(); });
  ASSERT_FALSE(opened);
  EXPECT_THAT(describe(opened.error()), HasSubstr("missing/settings.sqlite"));
}

TEST_F(SettingsStoreTest, AFailedWriteChangesNothing) {
  ASSERT_TRUE(store_->set(kOne, "a", 1));
  const Dictionary before = store_->versions(kOne);
  execute("CREATE TRIGGER full BEFORE INSERT ON setting BEGIN SELECT RAISE(FAIL, 'full'); END");
  open();
  EXPECT_THAT(describe(refused("a", 2)), HasSubstr("full"));
  EXPECT_EQ(store_->value(kOne, "a"), Value(1));
  EXPECT_EQ(store_->versions(kOne), before);
  EXPECT_THAT(*store_->removeValues(kOne, {"a"}), ElementsAre("a"));  // The store still works.
  openAsAfterAKill();
  EXPECT_TRUE(store_->value(kOne, "a").isNil());
}

}  // namespace
