#include "Platform/NamedConnections/NamedConnections.h"

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/NamedConnections/NamedConnections_contract.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using namespace std::string_view_literals;

std::unique_ptr<AsioRunLoop> makeProgramLoop() {
  auto loop = AsioRunLoop::create();
  EXPECT_TRUE(loop);
  return std::move(*loop);
}

// The objects of one program, with a loop of its own.
struct RealProgram {
  explicit RealProgram(const std::string& root)
      : program(*loop, transport,
                [root](std::string_view name) { return pathOfConnection(root, name); }) {}

  std::unique_ptr<AsioRunLoop> loop = makeProgramLoop();
  DBusPeerTransport transport{*loop};
  ConnectedProgram program;
};

// A thread with a loop of its own stands for the other program.
class RealHarness final : public NamedConnectionsHarness {
 public:
  RealHarness() {
    PlatformConfiguration configuration;
    configuration.root = folder_.path();
    const auto made = makeConnectionsFolder(configuration);
    EXPECT_TRUE(made) << describe(made.error());
    here_ = std::make_unique<RealProgram>(folder_.path());
    there_ = std::make_unique<RealProgram>(folder_.path());
    thread_ = std::thread([this] { there_->loop->run(); });
  }
  ~RealHarness() override {
    there_->loop->stop();
    thread_.join();
  }

  ConnectedProgram& here() override { return here_->program; }

  void there(const std::function<void(ConnectedProgram&)>& action) override {
    std::mutex mutex;
    std::condition_variable condition;
    bool done = false;
    there_->loop->post([&] {
      action(there_->program);
      const std::lock_guard lock(mutex);
      done = true;
      condition.notify_one();
    });
    std::unique_lock lock(mutex);
    condition.wait(lock, [&] { return done; });
  }
  // Our loop does not run meanwhile.
  void thereWhileWeHang(const std::function<void(ConnectedProgram&)>& action) override {
    there(action);
  }
  void thereWhileWeWait(std::function<bool()> action) override {
    there([&](ConnectedProgram& there) {
      timer_ = there.loop.startTimer(1ms, RunLoop::Repeat::kEvery, [this, action] {
        if (action()) timer_.reset();
      });
    });
  }

  std::string path(std::string_view name) override {
    return pathOfConnection(folder_.path(), name);
  }

 private:
  const TemporaryFolder folder_;
  std::unique_ptr<RealProgram> here_;
  std::unique_ptr<RealProgram> there_;
  std::unique_ptr<RunLoopHandle> timer_;  // there
  std::thread thread_;
};

std::unique_ptr<NamedConnectionsHarness> makeRealHarness() {
  return std::make_unique<RealHarness>();
}

INSTANTIATE_TEST_SUITE_P(DBus, NamedConnectionsContract, testing::Values(&makeRealHarness));
INSTANTIATE_TEST_SUITE_P(DBus, NamedConnectionsReferencesContract,
                         testing::Values(&makeRealHarness));
INSTANTIATE_TEST_SUITE_P(DBus, NamedConnectionsRepliesContract, testing::Values(&makeRealHarness));
INSTANTIATE_TEST_SUITE_P(DBus, NamedConnectionsPeersContract, testing::Values(&makeRealHarness));

// Behaviour that only real sockets have.
class NamedConnectionsSocketTest : public NamedConnectionsContract {
 protected:
  std::string path() { return harness_->path("server"); }

  // A plain socket, as any program can make it, connected to the server.
  UniqueFd connectSocket() {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address()), sizeof(sockaddr_un)),
        0)
        << std::strerror(errno);
    return socket;
  }
  const sockaddr_un& address() {
    address_.sun_family = AF_UNIX;
    EXPECT_LT(path().size(), sizeof(address_.sun_path));
    std::strcpy(address_.sun_path, path().c_str());
    return address_;
  }

  sockaddr_un address_{};
};

INSTANTIATE_TEST_SUITE_P(DBus, NamedConnectionsSocketTest, testing::Values(&makeRealHarness));

TEST_P(NamedConnectionsSocketTest, OnlyRootAndTheOwnerMayConnectToASocket) {
  vend();
  struct stat status{};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_P(NamedConnectionsSocketTest, ANameCanBeLongerThanAFileName) {
  const std::string name(1000, 'n');
  EXPECT_TRUE(here().connections.makeConnection()->registerName("name/with/slashes"));
  there([&](ConnectedProgram& there) {
    server_.connection = there.connections.makeConnection();
    server_.connection->setDelegate(&server_.delegate);
    ASSERT_TRUE(server_.connection->registerName(name));
  });
  EXPECT_NE(here().connections.connectionWithRegisteredName(name), nullptr);
  EXPECT_EQ(here().connections.connectionWithRegisteredName(name + "n"), nullptr);
}

TEST_P(NamedConnectionsSocketTest, TheSocketOfADeadOwnerBlocksNobody) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address()), sizeof(sockaddr_un)), 0);
  ASSERT_EQ(::listen(socket.get(), 1), 0);
  socket.reset();
  EXPECT_EQ(lookUp(), nullptr);
  start();
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsSocketTest, AStandardClientWithoutTheTokenGetsAnError) {
  start();
  const std::string command = "exec dbus-send --peer=unix:path=" + path() +
                              " --type=method_call --print-reply / com.vantor.Peer.echo_ "
                              "variant:string:secret 2>&1";
  std::FILE* output = ::popen(command.c_str(), "r");
  ASSERT_NE(output, nullptr);
  std::string text;
  for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) text += static_cast<char>(c);
  EXPECT_NE(::pclose(output), 0);
  EXPECT_EQ(text.find("secret"), std::string::npos) << text;
  EXPECT_NE(text.find("NSFailedAuthenticationException"), std::string::npos) << text;
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsSocketTest, SilentOrIncompletePeersKeepNobodyOut) {
  start();
  std::vector<UniqueFd> sockets;
  while (sockets.size() < 3 * kPeerPlaces) {
    sockets.push_back(connectSocket());
    // Every second one authenticates to D-Bus and sends the header of a gigabyte.
    const std::string_view hello =
        sockets.size() % 2 == 0
            ? "\0AUTH EXTER"sv
            : "\0AUTH EXTERNAL 30\r\nBEGIN\r\nl\1\0\1\0\0\0\x40\1\0\0\0\0\0\0\0"sv;
    EXPECT_GT(::send(sockets.back().get(), hello.data(), hello.size(), MSG_NOSIGNAL), 0);
  }
  EXPECT_TRUE(send("nothing"));
  connect();
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsSocketTest, OnlyAPeerThatStopsReadingLosesItsConnection) {
  start();
  const auto intruder = here().transport.connect(path(), {});
  ASSERT_TRUE(intruder);
  const Data token{'c', 'l', 'i', 'e', 'n', 't'};
  ASSERT_TRUE((*intruder)->call("NSConnectionAuthenticate:", {token}, 60s));
  // Our loop does not run, so no answer is read.
  for (int message = 0; message < 40; ++message)
    (*intruder)->callAsync("much", {}, 60s, [](const MessageResult&) {});
  for (int look = 0; children() == 2 && look < 100'000; ++look) ASSERT_TRUE(send("nothing"));
  EXPECT_EQ(children(), 1u);
  EXPECT_TRUE(send("nothing"));
}

}  // namespace
}  // namespace platform
