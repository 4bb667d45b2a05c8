#include "Platform/Linux/Logging/StandardErrorLogSink.h"

#include <array>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Logging/LogReceiver.h"

namespace platform {
namespace {

const LogRecord kWarningRecord{"program", "", ASL_LEVEL_WARNING, "a text\nof two lines"};

struct Ends {
  UniqueFd read;
  UniqueFd write;
};

Ends makePipe() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

Ends makeSocketPair() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

std::string readOnce(const UniqueFd& descriptor) {
  std::string bytes(8192, '\0');
  const ssize_t size = ::read(descriptor.get(), bytes.data(), bytes.size());
  bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return bytes;
}

class StandardErrorLogSinkTest : public testing::TestWithParam<Ends (*)()> {
 protected:
  Ends ends_ = GetParam()();
};

INSTANTIATE_TEST_SUITE_P(Pipe, StandardErrorLogSinkTest, testing::Values(&makePipe));
INSTANTIATE_TEST_SUITE_P(Socket, StandardErrorLogSinkTest, testing::Values(&makeSocketPair));

TEST_P(StandardErrorLogSinkTest, ALineHasTimeProgramProcessAndThread) {
  StandardErrorLogSink sink(ends_.write.get());
  ASSERT_TRUE(sink.write(kWarningRecord));
  EXPECT_THAT(
      readOnce(ends_.read),
      testing::MatchesRegex("....-..-.. ..:..:..\\.... program\\[" + std::to_string(::getpid()) +
                            ":" + std::to_string(::gettid()) + "\\] a text\\\\nof two lines\n"));
}

TEST_P(StandardErrorLogSinkTest, AReaderThatDoesNotReadDoesNotBlock) {
  StandardErrorLogSink sink(ends_.write.get());
  Result<void> written;
  for (int i = 0; i < 100'000 && written; ++i) written = sink.write(kWarningRecord);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().code, ErrorCode::kExhausted);
  // The flag would reach every process that shares the descriptor.
  EXPECT_EQ(::fcntl(ends_.write.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_P(StandardErrorLogSinkTest, AClosedPipeRaisesNoSignal) {
  StandardErrorLogSink sink(ends_.write.get());
  ends_.read.reset();
  const auto refused = sink.write(kWarningRecord);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kNotFound);
  sigset_t pending;
  ::sigpending(&pending);
  EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
}

TEST_P(StandardErrorLogSinkTest, ALongLineIsCut) {
  StandardErrorLogSink sink(ends_.write.get());
  ASSERT_TRUE(sink.write({"program", "", ASL_LEVEL_WARNING, std::string(10'000, 'x')}));
  const std::string line = readOnce(ends_.read);
  EXPECT_EQ(line.size(), 4096U);
  EXPECT_THAT(line, testing::EndsWith("x\n"));
}

TEST(StandardErrorFileTest, LinesAreAddedToAFile) {
  TemporaryLogFolder folder;
  const std::string path = folder.path("stderr");
  std::ofstream(path) << "older\n";
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  StandardErrorLogSink sink(file.get());
  ASSERT_TRUE(sink.write(kWarningRecord));
  std::ifstream stream(path);
  std::string line;
  std::getline(stream, line);
  EXPECT_EQ(line, "older");
  std::getline(stream, line);
  EXPECT_THAT(line, testing::EndsWith("two lines"));
}

TEST(StandardErrorFileTest, AFullDiskRefuses) {
  const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  const auto refused = StandardErrorLogSink(full.get()).write(kWarningRecord);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
}

TEST(StandardErrorFileTest, WithoutStandardErrorEveryMessageIsRefused) {
  EXPECT_FALSE(StandardErrorLogSink(-1).write(kWarningRecord));
}

}  // namespace
}  // namespace platform
