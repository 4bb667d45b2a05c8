#pragma once

// The contract of every implementation of FileReader. A test program derives a disk from
// FileReaderDisk and instantiates the suite with a function that makes it.

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Files/FileReader.h"

namespace platform {

class FileReaderDisk {
 public:
  virtual ~FileReaderDisk() = default;

  virtual FileReader& reader() = 0;
  // Writes a file with this content and returns its path.
  virtual std::string write(const std::string& name, const std::string& content) = 0;
  virtual std::string makeFolder(const std::string& name) = 0;
  // The path of a missing file.
  virtual std::string missing() = 0;
};

class FileReaderContract : public testing::TestWithParam<std::unique_ptr<FileReaderDisk> (*)()> {
 protected:
  std::unique_ptr<FileReaderDisk> disk_ = GetParam()();
  FileReader& reader_ = disk_->reader();
};

TEST_P(FileReaderContract, AFileExistsAndAMissingOneDoesNot) {
  EXPECT_TRUE(reader_.fileExistsAtPath(disk_->write("a", "")));
  EXPECT_FALSE(reader_.fileExistsAtPath(disk_->missing()));
  EXPECT_FALSE(reader_.fileExistsAtPath(""));
}

TEST_P(FileReaderContract, AFolderExistsToo) {
  EXPECT_TRUE(reader_.fileExistsAtPath(disk_->makeFolder("folder")));
}

TEST_P(FileReaderContract, APropertyListIsRead) {
  const std::string path =
      disk_->write("list.plist", "<plist><dict><key>k</key><integer>7</integer></dict></plist>");
  const auto list = reader_.propertyListAtPath(path);
  ASSERT_TRUE(list) << describe(list.error());
  EXPECT_EQ(*list, Value(Dictionary{{"k", 7}}));
}

TEST_P(FileReaderContract, AMalformedListIsAnErrorThatNamesTheFile) {
  const std::string path = disk_->write("cut.plist", "<plist><dict><key>k</key>");
  const auto list = reader_.propertyListAtPath(path);
  ASSERT_FALSE(list);
  EXPECT_EQ(list.error().code, ErrorCode::kInvalid);
  EXPECT_THAT(list.error().context, testing::HasSubstr(path));
}

TEST_P(FileReaderContract, AMissingFileIsNotFound) {
  const auto list = reader_.propertyListAtPath(disk_->missing());
  ASSERT_FALSE(list);
  EXPECT_EQ(list.error().code, ErrorCode::kNotFound);
  EXPECT_THAT(list.error().context, testing::HasSubstr(disk_->missing()));
}

TEST_P(FileReaderContract, AFolderIsNoPropertyList) {
  EXPECT_FALSE(reader_.propertyListAtPath(disk_->makeFolder("folder")));
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(FileReaderContract);

}  // namespace platform
