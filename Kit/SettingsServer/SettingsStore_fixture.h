#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "Kit/SettingsServer/SettingsStore.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

// A store of two domains in a file of its own.
class SettingsStoreTest : public testing::Test {
 protected:
  static constexpr char kOne[] = "com.vantor.One";
  static constexpr char kOther[] = "com.vantor.Other";

  SettingsStoreTest() { open(); }

  void open() {
    store_.reset();
    auto opened = SettingsStore::open(path_, {kOne, kOther}, [this](std::string_view warning) {
      warnings_.emplace_back(warning);
    });
    ASSERT_TRUE(opened) << describe(opened.error());
    store_ = std::move(*opened);
  }
  // Opens a copy of the files as the kernel has them now, as after a kill.
  void openAsAfterAKill() {
    const std::string copy = folder_.path("copy");
    for (const char* ending : {"", "-wal"}) {
      if (std::filesystem::exists(path_ + ending))
        std::filesystem::copy_file(path_ + ending, copy + ending,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    path_ = copy;
    open();
  }
  // The error of a change that is refused.
  platform::Error refused(std::string_view key, const platform::Value& value) {
    const auto done = store_->set(kOne, key, value);
    EXPECT_FALSE(done);
    return done ? platform::Error{} : done.error();
  }
  // A value with which a setting under a key of one byte has this size.
  static platform::Value valueOfBytes(std::size_t bytes) {
    constexpr std::size_t kAround = 32;  // the dictionary, its key, the variants' types, the length
    return platform::Value(platform::Data(bytes - kAround));
  }
  void execute(const char* sql) {
    store_.reset();
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
  }
  void replaceFile(const std::string& content) {
    store_.reset();
    std::ofstream(path_, std::ios::trunc) << content;
  }

  platform::TemporaryFolder folder_;
  std::string path_ = folder_.path("settings.sqlite");
  std::vector<std::string> warnings_;
  std::unique_ptr<SettingsStore> store_;
};
