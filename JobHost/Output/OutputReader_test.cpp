#include "JobHost/Output/OutputReader.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::UniqueFd;
using testing::ElementsAre;

constexpr auto kReaderDeadline = 60s;

// Keeps the lines that the reader's thread passes on.
class AwaitedLines final : public platform::LogSink {
 public:
  platform::Result<void> write(const platform::LogRecord& record) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::string(record.ident) + ": " + std::string(record.message));
    changed_.notify_all();
    return {};
  }

  // Waits for so many lines.
  std::vector<std::string> await(std::size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kReaderDeadline, [&] { return lines_.size() >= count; }));
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

void print(const UniqueFd& file, const std::string& text) {
  EXPECT_EQ(::write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

// The descriptors in all epoll sets of this process.
std::size_t watchedDescriptors() {
  std::size_t watched = 0;
  std::error_code error;
  for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
    if (std::filesystem::read_symlink(each, error) != "anon_inode:[eventpoll]") continue;
    std::ifstream facts("/proc/self/fdinfo/" + each.path().filename().string());
    for (std::string line; std::getline(facts, line);) watched += line.starts_with("tfd:") ? 1 : 0;
  }
  return watched;
}

// Limits the descriptors of this process while it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t soft) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit limit{.rlim_cur = soft, .rlim_max = before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

class OutputReaderTest : public testing::Test {
 protected:
  OutputReaderTest() { startReader(); }

  void startReader() {
    auto reader = OutputReader::create(folder_.path(), lines_, platform::monotonicTime);
    ASSERT_TRUE(reader) << platform::describe(reader.error());
    reader_ = *std::move(reader);
    const auto takenOver = reader_->takeOver();
    EXPECT_TRUE(takenOver) << platform::describe(takenOver.error());
  }

  // The standard output of a process of that name.
  UniqueFd open(const std::string& name) {
    auto opened = reader_->open(name);
    EXPECT_TRUE(opened) << platform::describe(opened.error());
    return opened ? *std::move(opened) : UniqueFd();
  }

  // The number of the name's pipes.
  std::size_t pipesOf(const std::string& name) const {
    std::size_t pipes = 0;
    for (const auto& each : std::filesystem::directory_iterator(folder_.path()))
      pipes += each.path().filename().string().starts_with(name + ".") ? 1 : 0;
    return pipes;
  }

  // A reader that has read to the end of a pipe removes it.
  void awaitEndOf(const std::string& name) const {
    const platform::Instant begin = platform::monotonicTime();
    while (pipesOf(name) > 0 && platform::monotonicTime() - begin < kReaderDeadline)
      ::poll(nullptr, 0, 1);
    EXPECT_EQ(pipesOf(name), 0U);
  }

  platform::TemporaryFolder folder_;
  AwaitedLines lines_;
  std::unique_ptr<OutputReader> reader_;
};

TEST_F(OutputReaderTest, PassesOnWhatIsPrinted) {
  const UniqueFd a = open("a");
  const UniqueFd b = open("b");
  print(a, "one\n");
  lines_.await(1);
  print(b, "two\n");
  EXPECT_THAT(lines_.await(2), ElementsAre("a: one", "b: two"));
}

TEST_F(OutputReaderTest, ALastLineNeedsNoEnd) {
  UniqueFd a = open("a");
  print(a, "last words");
  a.reset();
  EXPECT_THAT(lines_.await(1), ElementsAre("a: last words"));
  awaitEndOf("a");
}

TEST_F(OutputReaderTest, TheNextProcessOfALabelIsRead) {
  for (int i = 0; i < 50; ++i) {
    const UniqueFd a = open("a");
    print(a, "line\n");
  }
  lines_.await(50);
  awaitEndOf("a");
}

// A process that the host starts has copies of all descriptors until it executes its program.
TEST_F(OutputReaderTest, ACopyInAChildDoesNotKeepARemovedPipeWatched) {
  UniqueFd a = open("a");
  const std::size_t watched = watchedDescriptors();
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const UniqueFd endOfChild(ends[0]);
  UniqueFd end(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(a.get());
    ::close(end.get());
    char byte = 0;
    ::_exit(::read(endOfChild.get(), &byte, 1) == 0 ? 0 : 1);
  }
  ASSERT_GT(child, 0);
  a.reset();
  awaitEndOf("a");
  EXPECT_EQ(watchedDescriptors(), watched - 1);
  const UniqueFd b = open("b");
  print(b, "still read\n");
  EXPECT_THAT(lines_.await(1), ElementsAre("b: still read"));
  end.reset();
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(OutputReaderTest, AProcessPrintsWithoutAReaderAndTheNextOneReads) {
  const UniqueFd a = open("a");
  reader_.reset();
  print(a, "nobody reads\n");  // A pipe without a reader would end the process.
  EXPECT_EQ(pipesOf("a"), 1U);
  startReader();
  print(a, "again\n");
  EXPECT_THAT(lines_.await(2), ElementsAre("a: nobody reads", "a: again"));
}

TEST_F(OutputReaderTest, TheNextReaderRemovesPipesWithoutAProcess) {
  UniqueFd a = open("a");
  reader_->stop();
  a.reset();
  ASSERT_EQ(pipesOf("a"), 1U);
  ASSERT_EQ(::mkfifo(folder_.path("b.7").c_str(), 0600), 0);
  reader_.reset();
  startReader();
  EXPECT_EQ(pipesOf("a"), 0U);
  EXPECT_EQ(pipesOf("b"), 0U);
}

TEST_F(OutputReaderTest, TakesOverBesidePipesThatItReads) {
  const UniqueFd a = open("a");
  ASSERT_TRUE(reader_->takeOver());
  print(a, "read once\n");
  EXPECT_THAT(lines_.await(1), ElementsAre("a: read once"));
  EXPECT_EQ(pipesOf("a"), 1U);
}

TEST_F(OutputReaderTest, AStoppedReaderHasPassedOnEverythingAndGoesOn) {
  const UniqueFd a = open("a");
  print(a, "before");
  reader_->stop();
  EXPECT_THAT(lines_.await(1), ElementsAre("a: before"));
  print(a, "meanwhile\n");
  ASSERT_TRUE(reader_->start());
  EXPECT_THAT(lines_.await(2), ElementsAre("a: before", "a: meanwhile"));
}

TEST_F(OutputReaderTest, AnUnfinishedLineOfALivingProcessIsPassedOn) {
  const UniqueFd a = open("a");
  print(a, "password: ");
  EXPECT_THAT(lines_.await(1), ElementsAre("a: password: "));
}

TEST_F(OutputReaderTest, AFloodHoldsUpNeitherItsProcessNorOthers) {
  const UniqueFd flood = open("flood");
  const UniqueFd a = open("a");
  const std::string text(60'000, 'x');
  for (int i = 0; i < 200; ++i) print(flood, text + "\n");
  print(a, "calm\n");
  for (std::size_t count = 1;; ++count) {
    const auto lines = lines_.await(count);
    if (lines.size() < count || lines.back() == "a: calm") break;
    ASSERT_LT(lines.size(), 1000U);
  }
}

TEST_F(OutputReaderTest, AFileInAPipesPlaceIsLeftAlone) {
  folder_.write("a.1", "");
  EXPECT_EQ(::symlink("/dev/null", folder_.path("a.2").c_str()), 0);
  const UniqueFd a = open("a");
  print(a, "line\n");
  EXPECT_THAT(lines_.await(1), ElementsAre("a: line"));
  EXPECT_TRUE(reader_->takeOver());
  EXPECT_EQ(pipesOf("a"), 3U);
}

// A process of the earlier start may print still, and hold its pipe locked.
TEST_F(OutputReaderTest, EachStartHasAPipeOfItsOwn) {
  const UniqueFd first = open("a");
  UniqueFd second = open("a");
  EXPECT_EQ(pipesOf("a"), 2U);
  print(first, "one\n");
  lines_.await(1);
  print(second, "two\n");
  EXPECT_THAT(lines_.await(2), ElementsAre("a: one", "a: two"));
  second.reset();
  print(first, "three\n");
  EXPECT_THAT(lines_.await(3), ElementsAre("a: one", "a: two", "a: three"));
}

TEST_F(OutputReaderTest, TheNumberOfPipesOfANameIsBounded) {
  std::vector<UniqueFd> files;
  for (int i = 0; i < 64; ++i) files.push_back(open("a"));
  EXPECT_FALSE(reader_->open("a"));
  EXPECT_TRUE(reader_->open("a.b"));
}

TEST_F(OutputReaderTest, APipeThatCouldNotBeTakenOverIsReadLater) {
  const UniqueFd a = open("a");
  reader_->stop();
  print(a, "unread\n");
  auto next = OutputReader::create(folder_.path(), lines_, platform::monotonicTime);
  ASSERT_TRUE(next);
  reader_ = *std::move(next);
  {
    const DescriptorLimit none(3);
    EXPECT_FALSE(reader_->takeOver());
  }
  EXPECT_TRUE(reader_->takeOver());
  EXPECT_THAT(lines_.await(1), ElementsAre("a: unread"));
}

TEST_F(OutputReaderTest, HalfOfTheDescriptorsAreNotForPipes) {
  std::vector<UniqueFd> used;
  for (int i = 0; i < 60; ++i) used.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const DescriptorLimit few(static_cast<rlim_t>(used.back().get()) + 8);
  EXPECT_FALSE(reader_->open("a"));
  EXPECT_EQ(pipesOf("a"), 0U);
}

}  // namespace
}  // namespace jobhost
