#include "Platform/Linux/KernelExtensions/LinuxKernelControls.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <latch>
#include <map>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/KernelExtensions/KernelControls_contract.h"
#include "Platform/Linux/KernelExtensions/ControlFolder.h"
#include "Platform/Linux/KernelExtensions/ControlMessages.h"
#include "Platform/Linux/KernelExtensions/ControlServer.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Machine/TestStream.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

// Long enough for answers on a slow machine; the short one is for peers that do not answer.
constexpr Duration kTimeout = 60s;
constexpr Duration kShortTimeout = 10ms;

// An extension: its control, served by a thread of its own.
class ServingThread {
 public:
  ServingThread(const std::string& root, const std::string& name, MakeControlHandler makeHandler) {
    std::promise<void> listening;
    auto listens = listening.get_future();
    thread_ = std::jthread([this, root, name, makeHandler = std::move(makeHandler),
                            listening = std::move(listening)]() mutable {
      auto server = ControlServer::listen(*loop_, root, name, std::move(makeHandler));
      EXPECT_TRUE(server) << describe(server.error());
      listening.set_value();
      loop_->run();
    });
    listens.wait();
  }
  ~ServingThread() {
    resume();
    loop_->stop();
  }

  void hang() {
    loop_->post([this] {
      hasHung_.count_down();
      goesOn_.wait();
    });
    hasHung_.wait();
    hangs_ = true;
  }

 private:
  void resume() {
    if (std::exchange(hangs_, false)) goesOn_.count_down();
  }

  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  std::latch hasHung_{1};
  std::latch goesOn_{1};
  bool hangs_ = false;
  std::jthread thread_;
};

class LinuxControlsMachine final : public ControlsMachine {
 public:
  KernelControls& controls() override { return controls_; }
  KernelControls& controlsWithShortTimeout() override { return controlsWithShortTimeout_; }
  void offer(const std::string& name, MakeControlHandler makeHandler) override {
    servers_.try_emplace(name, root_.path(), name, std::move(makeHandler));
  }
  void hang(const std::string& name) override { servers_.at(name).hang(); }
  void end(const std::string& name) override { servers_.erase(name); }

 private:
  TemporaryFolder root_;
  LinuxKernelControls controls_{root_.path(), kTimeout};
  LinuxKernelControls controlsWithShortTimeout_{root_.path(), kShortTimeout};
  std::map<std::string, ServingThread> servers_;
};

std::unique_ptr<ControlsMachine> makeControlsMachine() {
  return std::make_unique<LinuxControlsMachine>();
}

INSTANTIATE_TEST_SUITE_P(Linux, KernelControlsContract, testing::Values(&makeControlsMachine));

class ControlServerTest : public testing::Test {
 protected:
  static constexpr char kName[] = "com.example.control";

  Result<std::unique_ptr<ControlServer>> listen(const std::string& name = kName) {
    return ControlServer::listen(*loop_, root_.path(), name,
                                 [this] { return std::make_unique<KeepingHandler>(kept_); });
  }
  std::string socketPath() const { return controlFolder(root_.path()) + "/" + kName; }

  // A client without the protocol's rules.
  UniqueFd rawClient() {
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath().c_str(), socketPath().size() + 1);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0)
        << std::strerror(errno);
    return socket;
  }
  // Serves everything that is pending.
  void serve() {
    const auto later = loop_->startTimer(0s, RunLoop::Repeat::kOnce, [] {});
    for (int turn = 0; turn < 8; ++turn) {
      loop_->post([this] { loop_->stop(); });
      loop_->run();
    }
  }
  // The server's answer: std::nullopt if there is none, an empty packet if it has hung up.
  static std::optional<std::vector<char>> answer(const UniqueFd& client) {
    std::vector<char> bytes(8192);
    const ssize_t size = ::recv(client.get(), bytes.data(), bytes.size(), 0);
    if (size < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(size));
    return bytes;
  }

  TemporaryFolder root_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  KeepingHandler::Kept kept_;
};

TEST_F(ControlServerTest, OnlyTheOwnerCanEnterTheFolder) {
  const auto server = listen();
  ASSERT_TRUE(server);
  struct stat status{};
  ASSERT_EQ(::stat(controlFolder(root_.path()).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0700u);
  ASSERT_EQ(::stat(socketPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
}

TEST_F(ControlServerTest, AFolderThatOthersCanEnterIsRefused) {
  std::filesystem::create_directories(controlFolder(root_.path()));
  for (const mode_t mode : {0777u, 0770u, 0750u, 0701u}) {
    ASSERT_EQ(::chmod(controlFolder(root_.path()).c_str(), mode), 0);
    const auto server = listen();
    ASSERT_FALSE(server) << mode;
    EXPECT_EQ(server.error().code, ErrorCode::kDenied);
  }
}

TEST_F(ControlServerTest, AFolderOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
  std::filesystem::create_directories(controlFolder(root_.path()));
  ASSERT_EQ(::chmod(controlFolder(root_.path()).c_str(), 0700), 0);
  ASSERT_EQ(::chown(controlFolder(root_.path()).c_str(), 12345, 12345), 0);
  EXPECT_FALSE(listen());
}

TEST_F(ControlServerTest, ANameBelongsToOneServerAtATime) {
  auto first = listen();
  ASSERT_TRUE(first);
  const auto second = listen();
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code, ErrorCode::kDenied);
  first->reset();
  EXPECT_FALSE(std::filesystem::exists(socketPath()));
  EXPECT_TRUE(listen());
}

TEST_F(ControlServerTest, TheSocketOfADeadExtensionIsReplaced) {
  std::filesystem::create_directories(controlFolder(root_.path()));
  ASSERT_EQ(::chmod(controlFolder(root_.path()).c_str(), 0700), 0);
  {
    const UniqueFd dead(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath().c_str(), socketPath().size() + 1);
    ASSERT_EQ(::bind(dead.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  LinuxKernelControls controls(root_.path(), kTimeout);
  const auto refused = connectToControl(controls, kName);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kNotFound);
  EXPECT_TRUE(listen());
}

TEST_F(ControlServerTest, AMalformedRequestDisconnectsOnlyItsClient) {
  const auto server = listen();
  ASSERT_TRUE(server);
  const UniqueFd good = rawClient();
  for (const std::size_t size : {std::size_t{1}, sizeof(ControlRequest) - 1,
                                 sizeof(ControlRequestBuffer), sizeof(ControlRequestBuffer) + 1}) {
    const UniqueFd client = rawClient();
    const std::vector<char> bytes(size, 1);
    ASSERT_EQ(::send(client.get(), bytes.data(), size, 0), static_cast<ssize_t>(size));
    serve();
    EXPECT_EQ(answer(client), std::vector<char>()) << size;
  }
  EXPECT_EQ((*server)->clients(), 1u);
  EXPECT_EQ(answer(good), std::nullopt);
}

TEST_F(ControlServerTest, AnUnknownOperationIsRefused) {
  const auto server = listen();
  ASSERT_TRUE(server);
  const UniqueFd client = rawClient();
  for (const std::uint32_t operation : {0u, 5u, 0xffffffffu}) {
    const ControlRequest request{operation, 3};
    ASSERT_EQ(::send(client.get(), &request, sizeof request, 0), ssize_t{sizeof request});
    serve();
    const auto bytes = answer(client);
    ASSERT_TRUE(bytes);
    ASSERT_EQ(bytes->size(), sizeof(ControlAnswer));
    ControlAnswer refusal;
    std::memcpy(&refusal, bytes->data(), sizeof refusal);
    EXPECT_EQ(refusal.errorNumber, EOPNOTSUPP);
  }
}

TEST_F(ControlServerTest, AClientBeyondTheLimitWaits) {
  const auto server = listen();
  ASSERT_TRUE(server);
  std::vector<UniqueFd> clients;
  for (std::size_t i = 0; i < ControlServer::kMaxClients - 1; ++i) clients.push_back(rawClient());
  while ((*server)->clients() < clients.size()) serve();
  clients.push_back(rawClient());
  while ((*server)->clients() < clients.size()) serve();
  EXPECT_EQ((*server)->clients(), ControlServer::kMaxClients);
  clients.push_back(rawClient());
  for (int i = 0; i < 10; ++i) serve();
  EXPECT_EQ((*server)->clients(), ControlServer::kMaxClients);
  clients.erase(clients.begin());
  const ControlRequest request{static_cast<std::uint32_t>(ControlOperation::kGetOption), 3};
  ASSERT_EQ(::send(clients.back().get(), &request, sizeof request, 0), ssize_t{sizeof request});
  std::optional<std::vector<char>> bytes;
  for (int i = 0; i < 100 && !bytes; ++i) {
    serve();
    bytes = answer(clients.back());
  }
  EXPECT_TRUE(bytes);
  EXPECT_EQ((*server)->clients(), ControlServer::kMaxClients);
}

TEST_F(ControlServerTest, AClientThatReadsNoAnswerIsDisconnected) {
  const auto server = listen();
  ASSERT_TRUE(server);
  {
    const std::lock_guard lock(kept_.mutex);
    kept_.options.emplace_back(3, Data(kMaxControlOptionBytes));
  }
  const UniqueFd client = rawClient();
  const ControlRequest request{static_cast<std::uint32_t>(ControlOperation::kGetOption), 3};
  serve();
  ASSERT_EQ((*server)->clients(), 1u);
  for (int i = 0; i < 10'000 && (*server)->clients() == 1; ++i) {
    static_cast<void>(::send(client.get(), &request, sizeof request, MSG_NOSIGNAL));
    serve();
  }
  EXPECT_EQ((*server)->clients(), 0u);
}

TEST(ControlPeerTest, OnlyRootAndTheOwnUserAreTrusted) {
  EXPECT_TRUE(checkControlUser(0, 1000));
  EXPECT_TRUE(checkControlUser(1000, 1000));
  EXPECT_TRUE(checkControlUser(0, 0));
  for (const auto& [user, ours] : {std::pair{1000u, 0u}, {1001u, 1000u}, {65534u, 1000u}}) {
    const auto refused = checkControlUser(user, ours);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, ErrorCode::kDenied);
  }
}

// Runs `call` as another user and returns its exit status.
int asUser(uid_t user, const std::function<int()>& call) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setresgid(user, user, user) != 0 || ::setresuid(user, user, user) != 0) ::_exit(99);
    ::_exit(call());
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
}

// Refused even if folder and socket permit the access, which they normally don't.
TEST_F(ControlServerTest, AnotherUserIsDisconnected) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  const auto server = listen();
  ASSERT_TRUE(server);
  const UniqueFd waiting = rawClient();  // Its answer shows that the server serves.
  const auto connects = [&] {
    const UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath().c_str(), socketPath().size() + 1);
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
               ? 0
               : 1;
  };
  EXPECT_EQ(asUser(12345, connects), 1);
  for (std::string path = controlFolder(root_.path()); path.size() > 4;
       path = path.substr(0, path.rfind('/'))) {
    ::chmod(path.c_str(), 0755);
  }
  ::chmod(socketPath().c_str(), 0666);
  EXPECT_EQ(asUser(12345, connects), 0);
  serve();
  EXPECT_EQ((*server)->clients(), 1u);
}

TEST_F(ControlServerTest, TheControlOfAnotherUserIsNotUsed) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  std::filesystem::create_directories(controlFolder(root_.path()));
  for (std::string path = controlFolder(root_.path()); path.size() > 4;
       path = path.substr(0, path.rfind('/'))) {
    ::chmod(path.c_str(), 0755);
  }
  ::chmod(controlFolder(root_.path()).c_str(), 0777);
  int ready[2];
  int done[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(done), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setresgid(12345, 12345, 12345) != 0 || ::setresuid(12345, 12345, 12345) != 0) ::_exit(1);
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath().c_str(), socketPath().size() + 1);
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket, 1) != 0) {
      ::_exit(2);
    }
    char byte = 0;
    if (::write(ready[1], &byte, 1) != 1) ::_exit(3);
    ::close(done[1]);
    static_cast<void>(::read(done[0], &byte, 1));
    ::_exit(0);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  LinuxKernelControls controls(root_.path(), kTimeout);
  const auto refused = connectToControl(controls, kName);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kDenied);
  EXPECT_THAT(refused.error().context, HasSubstr("uid 12345"));
  for (const int descriptor : {ready[0], ready[1], done[0], done[1]}) ::close(descriptor);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(ControlServerTest, ConnectingToAFullBacklogTimesOut) {
  const auto server = listen();  // Its loop does not run.
  ASSERT_TRUE(server);
  LinuxKernelControls controls(root_.path(), kShortTimeout);
  std::vector<std::unique_ptr<ControlSocket>> waiting;
  for (int i = 0; i < 100; ++i) {
    auto socket = connectToControl(controls, kName);
    if (!socket) {
      EXPECT_EQ(socket.error().osError, EAGAIN);
      EXPECT_GT(i, 0);
      return;
    }
    waiting.push_back(*std::move(socket));
  }
  ADD_FAILURE() << "the backlog has no end";
}

TEST_F(ControlServerTest, NoDescriptorIsLeftOpen) {
  const std::size_t before = openDescriptors();
  {
    auto server = listen();
    ASSERT_TRUE(server);
    const UniqueFd client = rawClient();
    serve();
    EXPECT_EQ((*server)->clients(), 1u);
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace platform
