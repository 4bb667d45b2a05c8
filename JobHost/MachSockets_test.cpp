#include "JobHost/MachSockets.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include "JobHost/BoundFile.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using platform::UniqueFd;

constexpr char kService[] = "com.example.service";
constexpr char kJob[] = "com.example.job";

// A socket that one host has bound, as a process of the job still has it, and the next host.
class MachSocketsTest : public testing::Test {
 protected:
  MachSocketsTest() {
    auto earlier = open();
    const auto socket = earlier.listen(kService, kJob);
    EXPECT_TRUE(socket);
    socket_.reset(::dup(*socket));
  }

  MachSockets open() const {
    auto sockets =
        MachSockets::open(folder_.path(), [this](std::string_view) { return audience_; });
    EXPECT_TRUE(sockets);
    return *std::move(sockets);
  }

  bool isTakenOver(UniqueFd socket) { return next_.takeOver(kService, kJob, std::move(socket)); }

  // The file name that the service's sockets are bound by.
  std::string boundName() const {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const std::string path = address.sun_path;
    return path.substr(path.rfind('/') + 1);
  }

  static UniqueFd bindTo(const std::string& path) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.data(), path.size());
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
  }
  static UniqueFd listenAt(const std::string& path) {
    UniqueFd socket = bindTo(path);
    EXPECT_EQ(::listen(socket.get(), 1), 0);
    return socket;
  }

  mode_t mode() const {
    struct stat status{};
    EXPECT_EQ(::stat(folder_.path(kService).c_str(), &status), 0);
    return status.st_mode & 07777u;
  }

  platform::TemporaryFolder folder_;
  platform::PeerAudience audience_;
  UniqueFd socket_;
  MachSockets next_ = open();
};

// A socket outlives its host, and the configuration may have changed since.
TEST_F(MachSocketsTest, TheModeIsThatOfTheAudience) {
  EXPECT_EQ(mode(), 0600u);
  audience_ = platform::PeerAudience::all();
  EXPECT_TRUE(isTakenOver(UniqueFd(::dup(socket_.get()))));
  EXPECT_EQ(mode(), 0666u);
  audience_ = {.everybody = false, .user = {}, .group = ::getegid()};
  next_.close(kService, kJob);
  ASSERT_TRUE(next_.listen(kService, kJob));
  EXPECT_EQ(mode(), 0660u);
}

TEST_F(MachSocketsTest, TheSocketOfAnEarlierHostIsTakenOverOnce) {
  EXPECT_TRUE(isTakenOver(UniqueFd(::dup(socket_.get()))));
  EXPECT_FALSE(isTakenOver(UniqueFd(::dup(socket_.get()))));
  EXPECT_FALSE(isTakenOver({}));
}

TEST_F(MachSocketsTest, ASocketOfTheSameNameElsewhereIsNotTakenOver) {
  folder_.write("elsewhere/file", "");
  EXPECT_FALSE(isTakenOver(listenAt(folder_.path("elsewhere/" + boundName()))));
}

TEST_F(MachSocketsTest, ASocketWhoseNameMeansAnotherIsNotTakenOver) {
  ASSERT_EQ(::unlink(folder_.path(kService).c_str()), 0);
  const UniqueFd other = listenAt(folder_.path(kService));
  EXPECT_FALSE(isTakenOver(std::move(socket_)));
}

TEST_F(MachSocketsTest, ASocketWithoutANameIsNotTakenOver) {
  ASSERT_EQ(::unlink(folder_.path(kService).c_str()), 0);
  EXPECT_FALSE(isTakenOver(std::move(socket_)));
}

TEST_F(MachSocketsTest, ASocketThatDoesNotListenIsNotTakenOver) {
  ASSERT_EQ(::unlink(folder_.path(kService).c_str()), 0);
  EXPECT_FALSE(isTakenOver(bindTo(folder_.path(kService))));
  EXPECT_FALSE(isTakenOver(UniqueFd(::dup(STDIN_FILENO))));
}

TEST_F(MachSocketsTest, TheKernelTellsWhichFileASocketIsBoundTo) {
  const auto file = boundFileOf(socket_.get());
  if (!file) GTEST_SKIP() << "this kernel has no diagnosis of Unix sockets";
  struct stat status{};
  ASSERT_EQ(::stat(folder_.path(kService).c_str(), &status), 0);
  EXPECT_EQ(file->inode, static_cast<std::uint32_t>(status.st_ino));
  const UniqueFd unbound(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(boundFileOf(unbound.get()));
  EXPECT_FALSE(boundFileOf(-1));
}

TEST(BoundFileTest, ADevicesNumberIsThatOfItsPartsInTheKernel) {
  EXPECT_EQ(deviceOfKernel((8U << 20) | 17U), makedev(8, 17));
  EXPECT_EQ(deviceOfKernel((4095U << 20) | 0xf'ffffU), makedev(4095, 0xf'ffff));
  EXPECT_EQ(deviceOfKernel(45), makedev(0, 45));
}

}  // namespace
}  // namespace jobhost
