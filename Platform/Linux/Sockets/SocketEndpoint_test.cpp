#include "Platform/Linux/Sockets/SocketEndpoint.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;

UniqueFd newSocket() { return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  EXPECT_LT(path.size(), sizeof(address.sun_path));
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof(address.sun_path) - 1));
  return address;
}

// 0, or the errno of bind().
int bindTo(const UniqueFd& socket, const std::string& path) {
  const sockaddr_un address = addressOf(path);
  return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
             ? 0
             : errno;
}
int connectTo(const std::string& path) {
  const UniqueFd socket = newSocket();
  const sockaddr_un address = addressOf(path);
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
             ? 0
             : errno;
}

class SocketEndpointTest : public testing::Test {
 protected:
  // The endpoint of a listening socket.
  Result<SocketEndpoint::New> make() {
    return SocketEndpoint::make(births_.path(), {.mode = 0666, .group = {}},
                                [this](const std::string& path) -> Result<void> {
                                  born_ = path;
                                  EXPECT_EQ(bindTo(listener_, path), 0);
                                  EXPECT_EQ(::listen(listener_.get(), 8), 0);
                                  return {};
                                });
  }
  static void expectRefused(UniqueFd descriptor) {
    const auto endpoint = SocketEndpoint::of(std::move(descriptor));
    ASSERT_FALSE(endpoint);
    EXPECT_EQ(endpoint.error().code, ErrorCode::kInvalid);
    EXPECT_THAT(endpoint.error().context, HasSubstr("no endpoint"));
  }
  UniqueFd pathOnly(const std::string& path) {
    UniqueFd descriptor(::open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
    EXPECT_TRUE(descriptor);
    return descriptor;
  }

  UniqueFd listener_ = newSocket();
  std::string born_;
  TemporaryFolder folder_;
  TemporaryFolder births_;
};

TEST_F(SocketEndpointTest, ItsHolderConnectsAndTheSocketHasNoName) {
  const auto made = make();
  ASSERT_TRUE(made);
  EXPECT_EQ(connectTo(made->endpoint->path()), 0);
  EXPECT_FALSE(std::filesystem::exists(born_));
}

TEST_F(SocketEndpointTest, AnEndpointCanBeHandedOn) {
  const auto made = make();
  ASSERT_TRUE(made);
  const auto copy =
      SocketEndpoint::of(UniqueFd(::fcntl(made->endpoint->descriptor(), F_DUPFD_CLOEXEC, 0)));
  ASSERT_TRUE(copy);
  EXPECT_EQ(connectTo((*copy)->path()), 0);
}

TEST_F(SocketEndpointTest, ItsHolderCanNeitherReadNorAcceptNorEndAnything) {
  const auto made = make();
  ASSERT_TRUE(made);
  const int held = made->endpoint->descriptor();
  char byte = 0;
  EXPECT_EQ(::read(held, &byte, 1), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(::accept4(held, nullptr, nullptr, SOCK_CLOEXEC), -1);
  EXPECT_EQ(::shutdown(held, SHUT_RDWR), -1);
  EXPECT_EQ(::open(made->endpoint->path().c_str(), O_RDWR | O_CLOEXEC), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_EQ(connectTo(made->endpoint->path()), 0);
}

TEST_F(SocketEndpointTest, TheKernelRefusesTheEndpointOfADeadOwner) {
  const auto made = make();
  ASSERT_TRUE(made);
  listener_.reset();
  EXPECT_EQ(connectTo(made->endpoint->path()), ECONNREFUSED);
  // It still is an endpoint: nothing in it shows that its owner has gone.
  EXPECT_TRUE(
      SocketEndpoint::of(UniqueFd(::fcntl(made->endpoint->descriptor(), F_DUPFD_CLOEXEC, 0))));
}

TEST_F(SocketEndpointTest, ASocketWithAccessIsNoEndpoint) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  const UniqueFd other(pair[1]);
  expectRefused(UniqueFd(pair[0]));
  ASSERT_TRUE(make());
  expectRefused(UniqueFd(::fcntl(listener_.get(), F_DUPFD_CLOEXEC, 0)));
}

// A process that sees a socket may lack the permission to connect to it.
TEST_F(SocketEndpointTest, ASocketWithANameIsNoEndpoint) {
  const std::string path = folder_.path("socket");
  ASSERT_EQ(bindTo(listener_, path), 0);
  ASSERT_EQ(::listen(listener_.get(), 8), 0);
  UniqueFd descriptor = pathOnly(path);
  expectRefused(UniqueFd(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 0)));
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_TRUE(SocketEndpoint::of(std::move(descriptor)));
}

TEST_F(SocketEndpointTest, FilesFoldersPipesAndLinksAreNoEndpoints) {
  const std::string file = folder_.write("file", "content");
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::string link = folder_.path("link");
  ASSERT_EQ(::symlink("/proc/self", link.c_str()), 0);
  expectRefused(UniqueFd(::open(file.c_str(), O_RDONLY | O_CLOEXEC)));
  expectRefused(UniqueFd(::open(pipe.c_str(), O_RDWR | O_CLOEXEC)));
  for (const std::string& path : {file, folder_.path(), pipe, link, std::string("/dev/null")}) {
    SCOPED_TRACE(path);
    expectRefused(pathOnly(path));
  }
}

TEST_F(SocketEndpointTest, NoDescriptorIsAnErrorOfTheSystem) {
  const auto endpoint = SocketEndpoint::of(UniqueFd());
  ASSERT_FALSE(endpoint);
  EXPECT_EQ(endpoint.error().osError, EBADF);
}

TEST_F(SocketEndpointTest, AFailedBindLeavesNothing) {
  std::string folder;
  const auto made = SocketEndpoint::make(
      births_.path(), {.mode = 0666, .group = {}}, [&](const std::string& path) -> Result<void> {
        folder = std::filesystem::read_symlink(path.substr(0, path.rfind('/')));
        return std::unexpected(Error{ErrorCode::kExhausted, 0, "no more"});
      });
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().context, "no more");
  ASSERT_TRUE(folder.starts_with(births_.path())) << folder;
  EXPECT_FALSE(std::filesystem::exists(folder));
}

// A process that is killed between making a folder and removing it leaves the folder and perhaps a
// socket.
TEST_F(SocketEndpointTest, TheLeftoversOfAKilledProcessAreRemoved) {
  const std::string killed = births_.path("new-killed");
  ASSERT_EQ(::mkdir(killed.c_str(), 0700), 0);
  ASSERT_EQ(bindTo(listener_, killed + "/socket"), 0);
  ASSERT_EQ(::mkdir(births_.path("new-empty").c_str(), 0700), 0);
  SocketEndpoint::removeLeftovers(births_.path());
  EXPECT_TRUE(std::filesystem::is_empty(births_.path()));
}

TEST_F(SocketEndpointTest, ABirthIsNotDisturbedByACleanUp) {
  const auto made = SocketEndpoint::make(births_.path(), {.mode = 0666, .group = {}},
                                         [&](const std::string& path) {
                                           SocketEndpoint::removeLeftovers(births_.path());
                                           EXPECT_EQ(bindTo(listener_, path), 0);
                                           EXPECT_EQ(::listen(listener_.get(), 8), 0);
                                           return Result<void>();
                                         });
  ASSERT_TRUE(made) << describe(made.error());
  EXPECT_EQ(connectTo(made->endpoint->path()), 0);
  EXPECT_TRUE(std::filesystem::is_empty(births_.path()));
}

TEST_F(SocketEndpointTest, OtherFilesAreKept) {
  const std::string file = births_.path("file");
  births_.write("file", "content");
  births_.write("new-folder/content", "content");
  ASSERT_EQ(::symlink("file", births_.path("new-link").c_str()), 0);
  SocketEndpoint::removeLeftovers(births_.path());
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_TRUE(std::filesystem::exists(births_.path("new-folder/content")));
  EXPECT_TRUE(std::filesystem::is_symlink(births_.path("new-link")));
}

TEST_F(SocketEndpointTest, WithoutAFolderThereIsNoEndpoint) {
  const auto made = SocketEndpoint::make(births_.path("none"), {},
                                         [](const std::string&) { return Result<void>(); });
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().osError, ENOENT);
}

}  // namespace
}  // namespace platform
