#include "JobHost/Output/OutputFiles.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Linux/Logging/ServiceOutputFile.h"
#include "Platform/Testing/Machine/FileSizeLimit.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

class OutputFilesTest : public testing::Test {
 protected:
  void write(std::string_view name, std::string_view line) {
    EXPECT_TRUE(files_.write({.ident = name, .facility = "test", .message = line}));
  }
  std::string pathOf(const std::string& name) const {
    return folder_.path("log/services/" + name + ".log");
  }

  platform::TemporaryFolder folder_;
  OutputFiles files_{folder_.path("log/services")};
};

TEST_F(OutputFilesTest, EachNameHasAFileWithTimesThatOthersCannotRead) {
  write("a", "one");
  write("b", "two\x1b");
  EXPECT_THAT(platform::contentOfFile(pathOf("a")),
              MatchesRegex("....-..-..T..:..:..\\.......Z one\n"));
  EXPECT_THAT(platform::contentOfFile(pathOf("b")), EndsWith("Z two\\x1b\n"));
  struct stat status{};
  ASSERT_EQ(::stat(pathOf("a").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0137U, 0U);
  ASSERT_EQ(::stat(folder_.path("log/services").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0027U, 0U);
}

TEST_F(OutputFilesTest, ANameHasABoundedNumberOfBytes) {
  const std::string line(8000, 'x');
  const std::size_t lines = 5 * platform::kServiceOutputLimits.bytes / line.size();
  for (std::size_t i = 0; i < lines; ++i) write("a", line);
  std::uintmax_t bytes = 0;
  std::size_t files = 0;
  for (const auto& each : std::filesystem::directory_iterator(folder_.path("log/services"))) {
    bytes += each.file_size();
    ++files;
  }
  EXPECT_EQ(files, 3U);
  EXPECT_LE(bytes, 3 * platform::kServiceOutputLimits.bytes);
}

TEST_F(OutputFilesTest, LinesThatTheDiskRefusesAreCounted) {
  write("a", "before");
  {
    const platform::FileSizeLimit full(0);
    write("a", "lost");
    write("a", "lost");
  }
  write("a", "after");
  EXPECT_THAT(platform::contentOfFile(pathOf("a")),
              ContainsRegex("before\n.*Z \\[2 lines were not written\\]\n.*Z after\n$"));
}

TEST_F(OutputFilesTest, ManyNamesShareFewDescriptors) {
  for (int i = 0; i < 200; ++i) write(std::to_string(i), "line");
  const auto open = std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                  std::filesystem::directory_iterator());
  EXPECT_LT(open, 150);
  write("0", "again");
  EXPECT_THAT(platform::contentOfFile(pathOf("0")), HasSubstr("line\n"));
  EXPECT_THAT(platform::contentOfFile(pathOf("0")), EndsWith("again\n"));
}

}  // namespace
}  // namespace jobhost
