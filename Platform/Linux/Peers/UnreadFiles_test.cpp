#include "Platform/Linux/Peers/UnreadFiles.h"

#include <string>

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

constexpr std::size_t kFileBytes = 2 * kMaxPeerMessageBytes;
constexpr std::size_t kFrame = 200;  // the bytes on the socket for a file

// The kernel's real socket. The files themselves do not matter, so there are none.
class UnreadFilesTest : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    ours_.reset(ends[0]);
    peers_.reset(ends[1]);
    files_ = UnreadFiles(ours_.get());
  }

  void write(std::size_t bytes) {
    const std::string text(bytes, 'x');
    ASSERT_EQ(::send(ours_.get(), text.data(), bytes, 0), static_cast<ssize_t>(bytes));
  }
  void send(std::size_t fileBytes) {
    files_.willSend(fileBytes, true);
    write(kFrame);
    files_.sent(fileBytes, true);
  }
  void read(std::size_t bytes = kFrame) {
    std::string text(bytes, '\0');
    ASSERT_EQ(::recv(peers_.get(), text.data(), bytes, 0), static_cast<ssize_t>(bytes));
  }
  std::size_t inSocket() const {
    int bytes = 0;
    EXPECT_EQ(::ioctl(ours_.get(), SIOCOUTQ, &bytes), 0);
    return static_cast<std::size_t>(bytes);
  }

  UniqueFd ours_;
  UniqueFd peers_;
  UnreadFiles files_{-1};
};

TEST_F(UnreadFilesTest, TheKernelCountsAtLeastThatMuchForAnyMessage) {
  write(1);
  const std::size_t one = inSocket();
  EXPECT_GT(one, UnreadFiles::kLeastSocketBytes);
  write(1);
  EXPECT_EQ(inSocket(), 2 * one);
  write(10'000);
  EXPECT_GT(inSocket(), 2 * one + 10'000);
  read(1);
  read(1);
  EXPECT_GT(inSocket(), 10'000u);
  read(9'999);
  EXPECT_GT(inSocket(), 9'999u);  // The whole message counts while a byte of it is unread.
  read(1);
  EXPECT_EQ(inSocket(), 0u);
}

TEST_F(UnreadFilesTest, EachFileCountsUntilItIsRead) {
  for (int i = 0; i < 5; ++i) send(kFileBytes);
  EXPECT_EQ(files_.bytes(true), 5 * kFileBytes);
  for (std::size_t left = 4; left > 0; --left) {
    read();
    EXPECT_EQ(files_.bytes(true), left * kFileBytes);
  }
  read();
  EXPECT_EQ(files_.bytes(true), 0u);
}

TEST_F(UnreadFilesTest, DataReadBeforeAFileDoesNotCountForIt) {
  for (int i = 0; i < 20; ++i) send(0);
  send(kFileBytes);
  for (int i = 0; i < 20; ++i) send(0);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(files_.bytes(true), kFileBytes);
    read();
  }
  EXPECT_EQ(files_.bytes(true), kFileBytes);
  read();
  EXPECT_EQ(files_.bytes(true), 0u);  // The message after it is still in the socket.
  EXPECT_GT(inSocket(), 0u);
}

TEST_F(UnreadFilesTest, APeerThatIsAlwaysOneBehindHasReadTheOthers) {
  send(kFileBytes);
  for (std::size_t sent = kFileBytes; sent < 256 * kFileBytes; sent += kFileBytes) {
    send(kFileBytes);
    EXPECT_EQ(files_.bytes(true), 2 * kFileBytes);
    read();
    EXPECT_EQ(files_.bytes(true), kFileBytes);
  }
}

// The size of such a message can't be measured, because the queue is no longer after it than
// before.
TEST_F(UnreadFilesTest, AReadDuringAWriteCountsALittleLater) {
  send(kFileBytes);
  for (int i = 0; i < 100; ++i) {
    files_.willSend(kFileBytes, true);
    write(kFrame);
    read();
    files_.sent(kFileBytes, true);
    EXPECT_GE(files_.bytes(true), kFileBytes);
    EXPECT_LE(files_.bytes(true), 4 * kFileBytes);
  }
  read();
  EXPECT_EQ(files_.bytes(true), 0u);
}

TEST_F(UnreadFilesTest, DataOutsideTheSocketIsUnread) {
  files_.willSend(kFileBytes, true);
  files_.sent(kFileBytes, false);
  files_.willSend(kFileBytes, false);
  files_.sent(kFileBytes, false);
  EXPECT_EQ(files_.bytes(false), 2 * kFileBytes);  // Although the socket is empty.
  write(kFrame);
  write(kFrame);
  EXPECT_EQ(files_.bytes(true), 2 * kFileBytes);
  send(0);
  send(0);
  read();
  // Their sizes were not measured, so they count until both are read.
  EXPECT_EQ(files_.bytes(true), 2 * kFileBytes);
  read();
  read();
  EXPECT_GT(inSocket(), 0u);
  EXPECT_EQ(files_.bytes(true), 0u);
}

TEST_F(UnreadFilesTest, AMessageWrittenInPartsIsUnreadUntilItsEnd) {
  send(kFileBytes);
  files_.willSend(kFileBytes, true);
  write(kFrame / 2);
  files_.sent(kFileBytes, false);
  EXPECT_EQ(files_.bytes(false), 2 * kFileBytes);
  read();
  EXPECT_EQ(files_.bytes(false), kFileBytes);
  read(kFrame / 2);
  EXPECT_EQ(files_.bytes(false), kFileBytes);
  write(kFrame / 2);
  EXPECT_EQ(files_.bytes(true), kFileBytes);
  read(kFrame / 2);
  EXPECT_EQ(files_.bytes(true), 0u);
}

TEST_F(UnreadFilesTest, WithoutASocketNothingIsRead) {
  UnreadFiles files(-1);
  files.willSend(kFileBytes, true);
  files.sent(kFileBytes, true);
  EXPECT_EQ(files.bytes(true), kFileBytes);
}

}  // namespace
}  // namespace platform
