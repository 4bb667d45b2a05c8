#include "Platform/Linux/Files/PropertyListFile.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

class PropertyListFileTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(::mkdtemp(folder_.data()), nullptr); }
  void TearDown() override { fs::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  void put(const std::string& name, std::string_view content) const {
    std::ofstream(path(name), std::ios::binary) << content;
  }
  std::string get(const std::string& name) const { return contentOfFile(path(name)); }
  std::ptrdiff_t files() const {
    return std::distance(fs::directory_iterator(folder_), fs::directory_iterator());
  }
  mode_t mode(const std::string& name) const {
    struct stat status{};
    EXPECT_EQ(::stat(path(name).c_str(), &status), 0);
    return status.st_mode & 07777;
  }
  static void expectError(const Result<Value>& value, ErrorCode code, int osError) {
    ASSERT_FALSE(value);
    EXPECT_EQ(value.error().code, code) << value.error().context;
    EXPECT_EQ(value.error().osError, osError) << value.error().context;
  }

  std::string folder_ = (fs::temp_directory_path() / "plistfileXXXXXX").string();
  const Value value_ = Dictionary{{"Label", "x"}, {"Count", 3}, {"Nice", 0.5}};
};

TEST_F(PropertyListFileTest, ListsInBothFormatsCanBeReadBack) {
  for (const auto format : {PropertyListFormat::kXml, PropertyListFormat::kBinary}) {
    ASSERT_TRUE(writePropertyListFile(path("a.plist"), value_, format));
    const auto read = readPropertyListFile(path("a.plist"));
    ASSERT_TRUE(read) << read.error().context;
    EXPECT_EQ(*read, value_);
    EXPECT_EQ(get("a.plist").starts_with("bplist00"), format == PropertyListFormat::kBinary);
  }
  EXPECT_EQ(files(), 1);
}

TEST_F(PropertyListFileTest, TheErrorOfMalformedContentHasPathLineAndColumn) {
  put("a.plist", "<plist>\n  <int>1</int>\n</plist>");
  const auto read = readPropertyListFile(path("a.plist"));
  ASSERT_FALSE(read);
  EXPECT_TRUE(read.error().context.starts_with(path("a.plist") + ":2:3: unexpected element <int>"))
      << read.error().context;
}

TEST_F(PropertyListFileTest, AFailedOpenHasAReason) {
  expectError(readPropertyListFile(path("absent")), ErrorCode::kNotFound, ENOENT);
  put("file", "x");
  expectError(readPropertyListFile(path("file/below")), ErrorCode::kNotFound, ENOTDIR);
}

TEST_F(PropertyListFileTest, OnlyRegularFilesAreReadAndNothingBlocks) {
  expectError(readPropertyListFile(folder_), ErrorCode::kInvalid, 0);
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  expectError(readPropertyListFile(path("fifo")), ErrorCode::kInvalid, 0);
  put("a.plist", "<plist><true/></plist>");
  ASSERT_EQ(::symlink("a.plist", path("link").c_str()), 0);
  expectError(readPropertyListFile(path("link")), ErrorCode::kInvalid, ELOOP);
}

TEST_F(PropertyListFileTest, FilesAreReadUpToTheSizeLimit) {
  std::string text = "<plist><true/></plist>";
  text.resize(kMaxPropertyListBytes, ' ');
  put("a.plist", text);
  EXPECT_TRUE(readPropertyListFile(path("a.plist")));
  put("a.plist", text + " ");
  expectError(readPropertyListFile(path("a.plist")), ErrorCode::kExhausted, 0);
}

TEST_F(PropertyListFileTest, AReplacedFileKeepsItsMode) {
  ASSERT_TRUE(writePropertyListFile(path("a.plist"), value_, PropertyListFormat::kXml));
  EXPECT_EQ(mode("a.plist"), 0644u);
  ASSERT_EQ(::chmod(path("a.plist").c_str(), 0600), 0);
  ASSERT_TRUE(writePropertyListFile(path("a.plist"), value_, PropertyListFormat::kXml));
  EXPECT_EQ(mode("a.plist"), 0600u);
}

TEST_F(PropertyListFileTest, ASymbolicLinkIsReplacedButNotItsTarget) {
  put("target", "old");
  ASSERT_EQ(::symlink("target", path("a.plist").c_str()), 0);
  ASSERT_TRUE(writePropertyListFile(path("a.plist"), value_, PropertyListFormat::kXml));
  EXPECT_FALSE(fs::is_symlink(path("a.plist")));
  EXPECT_EQ(get("target"), "old");
}

TEST_F(PropertyListFileTest, AReaderOfTheOldFileKeepsTheOldContent) {
  put("a.plist", "old");
  std::ifstream before(path("a.plist"));
  ASSERT_TRUE(writePropertyListFile(path("a.plist"), value_, PropertyListFormat::kXml));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(before), {}), "old");
}

TEST_F(PropertyListFileTest, AnUnwritableValueLeavesTheFileUnchanged) {
  put("a.plist", "old");
  const auto written = writePropertyListFile(
      path("a.plist"), Dictionary{{"k", Value::nullMarker()}}, PropertyListFormat::kXml);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().context,
            path("a.plist") + ": k: the null marker, which XML property lists can't hold");
  EXPECT_EQ(get("a.plist"), "old");
  EXPECT_EQ(files(), 1);
}

TEST_F(PropertyListFileTest, AFailureOfTheSystemLeavesOnlyTheUnchangedFile) {
  const auto missing =
      writePropertyListFile(path("absent/a.plist"), value_, PropertyListFormat::kXml);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, ErrorCode::kNotFound);
  EXPECT_EQ(missing.error().osError, ENOENT);

  ASSERT_EQ(::mkdir(path("folder").c_str(), 0700), 0);
  const auto ontoFolder = writePropertyListFile(path("folder"), value_, PropertyListFormat::kXml);
  ASSERT_FALSE(ontoFolder);
  EXPECT_EQ(ontoFolder.error().osError, EISDIR);
  EXPECT_EQ(files(), 1);
}

TEST_F(PropertyListFileTest, AWriteThatFailsHalfwayLeavesTheFileUnchanged) {
  put("a.plist", "old");
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlimit tight{100, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  const auto written = writePropertyListFile(path("a.plist"), value_, PropertyListFormat::kXml);
  EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
  std::signal(SIGXFSZ, oldHandler);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().osError, EFBIG);
  EXPECT_EQ(get("a.plist"), "old");
  EXPECT_EQ(files(), 1);
}

}  // namespace
}  // namespace platform
