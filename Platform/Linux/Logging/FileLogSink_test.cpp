#include "Platform/Linux/Logging/FileLogSink.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Testing/Logging/LogReceiver.h"
#include "Platform/Testing/Machine/FileSizeLimit.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

// The lines of a file; a line without a line break is marked.
std::vector<std::string> linesOf(const std::string& path) {
  std::vector<std::string> lines;
  std::istringstream contents(contentsOf(path));
  for (std::string line; std::getline(contents, line);) {
    if (contents.eof()) line += "<torn>";
    lines.push_back(std::move(line));
  }
  return lines;
}

LogRecord record(std::string_view text) {
  return {"Ident", "com.vantor.test", ASL_LEVEL_INFO, text};
}

class FileLogSinkTest : public testing::Test {
 protected:
  // The text of each line of the file `name`.
  std::vector<std::string> textsOf(std::string_view name) const {
    std::vector<std::string> texts;
    for (const std::string& line : linesOf(folder_.path(name))) {
      const auto parsed = parseLogFileLine(line);
      texts.push_back(parsed ? parsed->text : "ill-formed: " + line);
    }
    return texts;
  }

  TemporaryLogFolder folder_;
  const std::string path_ = folder_.path("system.log");
};

TEST_F(FileLogSinkTest, ALineHasAllItsParts) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write({"Vantor Distant Object", "com.vantor.hostagent", ASL_LEVEL_WARNING,
                          "[Proxy.cpp:7] gone\nfor good"}));
  const std::string contents = contentsOf(path_);
  EXPECT_THAT(contents,
              AllOf(MatchesRegex("....-..-..T..:..:..\\.......Z [^ ]+ Vantor Distant Object\\["
                                 "[0-9]+\\] \\(com.vantor.hostagent\\) <Warning> .*\n"),
                    HasSubstr("[" + std::to_string(::getpid()) + "]"),
                    EndsWith("> [Proxy.cpp:7] gone\\nfor good\n")));
}

TEST_F(FileLogSinkTest, AMissingFileAndItsFolderAreMade) {
  const ::mode_t before = ::umask(0);
  FileLogSink sink(folder_.path("log/system.log"));
  EXPECT_TRUE(sink.write(record("text")));
  ::umask(before);
  struct stat attributes{};
  ASSERT_EQ(::stat(folder_.path("log/system.log").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode, static_cast<mode_t>(S_IFREG | 0640));
  ASSERT_EQ(::stat(folder_.path("log").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
}

TEST_F(FileLogSinkTest, WithoutAFolderTheSinkRefuses) {
  FileLogSink sink(folder_.path("missing/log/system.log"));
  EXPECT_FALSE(sink.write(record("text")));
}

TEST_F(FileLogSinkTest, ExistingLinesAreKept) {
  std::ofstream(path_) << "older\n";
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("newer")));
  const auto lines = linesOf(path_);
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[0], "older");
}

TEST_F(FileLogSinkTest, OnlyARegularFileIsWritten) {
  FileLogSink sink(path_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(sink.write(record("text")).error().code, ErrorCode::kDenied);
  // Also with a reader, because then open() would succeed.
  const UniqueFd reader(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_EQ(sink.write(record("text")).error().code, ErrorCode::kDenied);
  std::filesystem::remove(path_);

  std::ofstream(folder_.path("elsewhere")) << "";
  std::filesystem::create_symlink(folder_.path("elsewhere"), path_);
  EXPECT_EQ(sink.write(record("text")).error().code, ErrorCode::kDenied);
  EXPECT_EQ(contentsOf(folder_.path("elsewhere")), "");
  std::filesystem::remove(path_);

  EXPECT_EQ(FileLogSink("/dev/null").write(record("text")).error().code, ErrorCode::kDenied);
  EXPECT_TRUE(sink.write(record("text")));
}

TEST_F(FileLogSinkTest, AFileThatBecameALinkIsNotWritten) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("text")));
  std::filesystem::rename(path_, folder_.path("moved"));
  std::filesystem::create_symlink(folder_.path("moved"), path_);
  EXPECT_FALSE(sink.write(record("text")));
  EXPECT_THAT(linesOf(folder_.path("moved")), SizeIs(1));
}

TEST_F(FileLogSinkTest, StartedProgramsDoNotInheritTheFile) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("text")));
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) != path_) continue;
    ++found;
    EXPECT_EQ(::fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
  }
  EXPECT_EQ(found, 1);
}

TEST_F(FileLogSinkTest, ARenameByAnotherProcessIsNoticedAtTheNextLine) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("first")));
  std::filesystem::rename(path_, folder_.path("system.log.old"));
  ASSERT_TRUE(sink.write(record("second")));
  EXPECT_THAT(textsOf("system.log.old"), ElementsAre("first"));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("second"));
}

TEST_F(FileLogSinkTest, ARotationByAnotherProcessIsNoticed) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("first")));
  std::filesystem::rename(path_, folder_.path("system.log.old"));
  std::ofstream(path_) << "";
  ASSERT_TRUE(sink.write(record("second")));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("second"));
}

TEST_F(FileLogSinkTest, ARemovedOrEmptiedFileIsStartedAgain) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("first")));
  std::filesystem::remove(path_);
  ASSERT_TRUE(sink.write(record("second")));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("second"));
  std::filesystem::resize_file(path_, 0);
  ASSERT_TRUE(sink.write(record("third")));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("third"));
}

std::size_t lineSize(std::string_view text) {
  TemporaryLogFolder folder;
  FileLogSink sink(folder.path("one"));
  EXPECT_TRUE(sink.write(record(text)));
  return static_cast<std::size_t>(std::filesystem::file_size(folder.path("one")));
}

TEST_F(FileLogSinkTest, AFileIsRotatedBeforeALineThatExceedsIt) {
  const std::size_t size = lineSize("1");
  FileLogSink sink(path_, {.bytes = 2 * size, .kept = 5});
  for (const char* text : {"1", "2", "3"}) ASSERT_TRUE(sink.write(record(text)));
  EXPECT_THAT(textsOf("system.log.1"), ElementsAre("1", "2"));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("3"));

  FileLogSink larger(folder_.path("larger.log"), {.bytes = 2 * size - 1, .kept = 5});
  for (const char* text : {"1", "2"}) ASSERT_TRUE(larger.write(record(text)));
  EXPECT_THAT(textsOf("larger.log.1"), ElementsAre("1"));
}

TEST_F(FileLogSinkTest, ALineLongerThanAFileHasItsOwnFile) {
  FileLogSink sink(path_, {.bytes = 10, .kept = 5});
  for (const char* text : {"1", "2"}) ASSERT_TRUE(sink.write(record(text)));
  EXPECT_THAT(textsOf("system.log.1"), ElementsAre("1"));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("2"));
  EXPECT_FALSE(std::filesystem::exists(folder_.path("system.log.2")));
}

TEST_F(FileLogSinkTest, TheNumberOfOlderFilesIsLimited) {
  for (const unsigned kept : {1U, 3U}) {
    const std::string name = "kept" + std::to_string(kept);
    FileLogSink sink(folder_.path(name), {.bytes = 1, .kept = kept});
    for (int i = 0; i < 6; ++i) ASSERT_TRUE(sink.write(record(std::to_string(i))));
    EXPECT_THAT(textsOf(name), ElementsAre("5"));
    for (unsigned number = 1; number <= kept; ++number)
      EXPECT_THAT(textsOf(name + "." + std::to_string(number)),
                  ElementsAre(std::to_string(5 - number)));
    EXPECT_FALSE(std::filesystem::exists(folder_.path(name + "." + std::to_string(kept + 1))));
  }
}

TEST_F(FileLogSinkTest, AGapAmongTheOlderFilesSavesTheOldest) {
  FileLogSink sink(path_, {.bytes = 1, .kept = 3});
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(sink.write(record(std::to_string(i))));
  std::filesystem::remove(folder_.path("system.log.2"));
  ASSERT_TRUE(sink.write(record("4")));
  EXPECT_THAT(textsOf("system.log.1"), ElementsAre("3"));
  EXPECT_THAT(textsOf("system.log.2"), ElementsAre("2"));
  EXPECT_THAT(textsOf("system.log.3"), ElementsAre("0"));
}

// Another process holds the lock during its rotation; we continue without blocking or losing a
// line.
TEST_F(FileLogSinkTest, WhileAnotherProcessRotatesTheFileGrows) {
  FileLogSink sink(path_, {.bytes = 1, .kept = 3});
  ASSERT_TRUE(sink.write(record("1")));
  UniqueFd other(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  ASSERT_TRUE(sink.write(record("2")));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("1", "2"));
  other.reset();
  ASSERT_TRUE(sink.write(record("3")));
  EXPECT_THAT(textsOf("system.log.1"), ElementsAre("1", "2"));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("3"));
}

TEST_F(FileLogSinkTest, IfRotatingFailsTheFileGrows) {
  FileLogSink sink(path_, {.bytes = 1, .kept = 1});
  std::filesystem::create_directories(folder_.path("system.log.1/in the way"));
  for (const char* text : {"1", "2", "3"}) ASSERT_TRUE(sink.write(record(text)));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("1", "2", "3"));
}

TEST_F(FileLogSinkTest, TwoProcessesRotatingAtOnceLoseAndTearNoLine) {
  constexpr int kProcesses = 2;
  constexpr int kLines = 2000;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      FileLogSink sink(path_, {.bytes = 4096, .kept = 1000});
      for (int i = 0; i < kLines; ++i)
        if (!sink.write(record(std::to_string(process) + " " + std::to_string(i)))) ::_exit(1);
      ::_exit(0);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }

  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path("")))
    files.push_back(entry.path().filename());
  std::vector<std::vector<bool>> seen(kProcesses, std::vector<bool>(kLines));
  int count = 0;
  for (const auto& file : files) {
    EXPECT_GT(std::filesystem::file_size(folder_.path(file.string())), 0U) << file;
    for (const std::string& text : textsOf(file.string())) {
      int process = -1;
      int line = -1;
      std::istringstream(text) >> process >> line;
      ASSERT_TRUE(process >= 0 && process < kProcesses && line >= 0 && line < kLines)
          << file << ": " << text;
      seen[static_cast<std::size_t>(process)][static_cast<std::size_t>(line)] = true;
      ++count;
    }
  }
  EXPECT_EQ(count, kProcesses * kLines);
  for (const auto& lines : seen) EXPECT_THAT(lines, testing::Each(true));
  // Each file was rotated once: all but the current one are full, except for one line and the lines
  // written during a rotation.
  std::size_t full = 0;
  for (const auto& file : files)
    full += std::filesystem::file_size(folder_.path(file.string())) > 3900 ? 1 : 0;
  EXPECT_GE(full + 1, files.size());
}

TEST_F(FileLogSinkTest, AFullDiskRefusesWithoutASignal) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("first")));
  {
    const FileSizeLimit limit(std::filesystem::file_size(path_));
    // SIGXFSZ has its default action here, which ends the process.
    const auto refused = sink.write(record("lost"));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
    sigset_t pending;
    ::sigpending(&pending);
    EXPECT_EQ(::sigismember(&pending, SIGXFSZ), 0);
  }
  ASSERT_TRUE(sink.write(record("second")));
  EXPECT_THAT(textsOf("system.log"), ElementsAre("first", "second"));
}

TEST_F(FileLogSinkTest, APartialLineIsLostButDamagesNoOther) {
  FileLogSink sink(path_);
  SystemLog log(sink, "program");
  log.asl_log(nullptr, ASL_LEVEL_INFO, "first");
  {
    const FileSizeLimit limit(std::filesystem::file_size(path_) + 10);
    log.asl_log(nullptr, ASL_LEVEL_INFO, "lost");
    log.asl_log(nullptr, ASL_LEVEL_INFO, "lost too");
    EXPECT_EQ(log.dropped(), 2U);
  }
  log.asl_log(nullptr, ASL_LEVEL_INFO, "second");
  const auto lines = linesOf(path_);
  ASSERT_THAT(lines, SizeIs(4));
  EXPECT_THAT(lines[1], SizeIs(10));
  EXPECT_THAT(lines[2], EndsWith("2 messages were lost here."));
  EXPECT_THAT(lines[3], EndsWith("> second"));
}

TEST_F(FileLogSinkTest, AnotherProcessesTornLineIsEndedToo) {
  FileLogSink sink(path_);
  ASSERT_TRUE(sink.write(record("first")));
  std::ofstream(path_, std::ios::app) << "2026-01-02T03:0";
  ASSERT_TRUE(sink.write(record("second")));
  const auto lines = linesOf(path_);
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[1], "2026-01-02T03:0");
  EXPECT_THAT(lines[2], EndsWith("> second"));

  std::ofstream(path_, std::ios::app) << "torn before a restart";
  FileLogSink restarted(path_);
  ASSERT_TRUE(restarted.write(record("third")));
  EXPECT_EQ(linesOf(path_)[3], "torn before a restart");
}

}  // namespace
}  // namespace platform
