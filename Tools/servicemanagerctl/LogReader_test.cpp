#include "Tools/servicemanagerctl/LogReader.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

class LogReaderTest : public testing::Test {
 protected:
  void append(const std::string& text) { std::ofstream(path_, std::ios::app) << text; }

  std::string next() {
    auto part = reader_.next();
    EXPECT_TRUE(part) << platform::describe(part.error());
    return part ? *part : std::string();
  }

  platform::TemporaryFolder folder_;
  const std::string path_ = folder_.path("system.log");
  LogReader reader_{path_};
};

TEST_F(LogReaderTest, ReadsTheFileAsItGrows) {
  append("one\n");
  EXPECT_EQ(next(), "one\n");
  EXPECT_EQ(next(), "");
  append("two\n");
  EXPECT_EQ(next(), "two\n");
}

TEST_F(LogReaderTest, AFileThatAppearsLaterIsRead) {
  EXPECT_EQ(next(), "");
  append("one\n");
  EXPECT_EQ(next(), "one\n");
}

TEST_F(LogReaderTest, LinesBeforeARotationAreNotLost) {
  append("one\n");
  EXPECT_EQ(next(), "one\n");
  append("two\n");
  std::filesystem::rename(path_, path_ + ".1");
  EXPECT_EQ(next(), "two\n");
  EXPECT_EQ(next(), "");
  append("three\n");
  EXPECT_EQ(next(), "three\n");
  EXPECT_EQ(next(), "");
}

TEST_F(LogReaderTest, ALargeFileComesInParts) {
  const std::string text(100'000, 'x');
  append(text);
  const std::string first = next();
  EXPECT_LT(first.size(), text.size());
  EXPECT_EQ(first + next(), text);
}

TEST_F(LogReaderTest, BeginsWithTheLastLines) {
  append("one\ntwo\nthree\n");
  ASSERT_TRUE(reader_.skipToLast(2));
  EXPECT_EQ(next(), "two\nthree\n");
}

TEST_F(LogReaderTest, AShortFileIsReadWhole) {
  append("one\ntwo");
  for (const std::size_t lines : {2u, 3u}) {
    LogReader reader(path_);
    ASSERT_TRUE(reader.skipToLast(lines));
    EXPECT_EQ(reader.next().value(), "one\ntwo") << lines;
  }
}

TEST_F(LogReaderTest, TheLastLinesOfALongFileAreFoundAtItsEnd) {
  append(std::string(100'000, 'x') + "\n");
  append("one\ntwo\n");
  ASSERT_TRUE(reader_.skipToLast(1));
  EXPECT_EQ(next(), "two\n");
}

TEST_F(LogReaderTest, AFolderIsRefused) {
  std::filesystem::create_directory(path_);
  EXPECT_FALSE(reader_.next());
  EXPECT_FALSE(reader_.skipToLast(1));
}

}  // namespace
