// Real processes: a passed socket, a killed peer, and a server without descriptors.

#include <csignal>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using Listen = std::function<Result<std::unique_ptr<PeerListener>>(DBusPeerTransport&,
                                                                   PeerTransport::NewConnection)>;

// Serves until it is killed: `echo:`, and `keep`, which is never answered.
[[noreturn]] void serve(const Listen& listen, int started) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport(*loop);
  std::vector<std::unique_ptr<PeerConnection>> connections;
  std::vector<std::unique_ptr<PeerReply>> kept;
  const auto listener = listen(transport, [&](std::unique_ptr<PeerConnection> peer) {
    peer->admit();
    peer->setHandlers({.message =
                           [&](PeerMessage message) {
                             if (message.selector == "keep") {
                               kept.push_back(std::move(message.reply));
                             } else {
                               std::ignore = message.reply->answer(message.arguments.at(0));
                             }
                           },
                       .death =
                           [&connections, held = peer.get()](const Error&) {
                             std::erase_if(connections,
                                           [&](const auto& one) { return one.get() == held; });
                           }});
    connections.push_back(std::move(peer));
  });
  const char outcome = listener ? 'y' : 'n';
  if (::write(started, &outcome, 1) != 1 || !listener) ::_exit(1);
  loop->run();
  ::_exit(0);
}

class DBusPeerProcessTest : public testing::Test {
 protected:
  ~DBusPeerProcessTest() override { kill(); }

  void startServer(const Listen& listen, const std::function<void()>& prepare = {}) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    server_ = ::fork();
    if (server_ == 0) {
      if (prepare) prepare();
      serve(listen, writeEnd.get());
    }
    writeEnd.reset();
    char outcome = 0;
    ASSERT_EQ(::read(readEnd.get(), &outcome, 1), 1);
    ASSERT_EQ(outcome, 'y');
  }

  void kill() {
    if (server_ <= 0) return;
    ::kill(server_, SIGKILL);
    ::waitpid(server_, nullptr, 0);
    server_ = 0;
  }

  std::unique_ptr<PeerConnection> connect(Duration timeout = 60s) {
    auto connection = transport_.connect(path_, {.timeout = timeout});
    return connection ? std::move(*connection) : nullptr;
  }

  Duration processorTime() const {
    clockid_t clock{};
    timespec time{};
    EXPECT_EQ(::clock_getcpuclockid(server_, &clock), 0);
    EXPECT_EQ(::clock_gettime(clock, &time), 0);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  }

  UniqueFd boundSocket(bool listening) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    if (listening) {
      EXPECT_EQ(::listen(socket.get(), 16), 0);
    }
    return socket;
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_.path("server");
  pid_t server_ = 0;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport_{*loop_};
};

TEST_F(DBusPeerProcessTest, APassedSocketIsUsedAndKeepsItsName) {
  const UniqueFd passed = boundSocket(true);
  startServer(
      [](DBusPeerTransport& transport, PeerTransport::NewConnection onConnection) {
        auto listener = transport.listenOn(3, {}, std::move(onConnection));
        if (::getenv("LISTEN_FDS") != nullptr) return decltype(listener)();
        return listener;
      },
      [&] { ::dup2(passed.get(), 3); });
  auto connection = connect();
  ASSERT_TRUE(connection);
  // The credentials are those of the process that called listen().
  EXPECT_EQ(connection->peer().process, ::getpid());
  EXPECT_EQ(connection->call("echo:", {Value("passed")}, 60s), MessageResult("passed"));
  kill();
  EXPECT_EQ(::access(path_.c_str(), F_OK), 0);
}

TEST_F(DBusPeerProcessTest, OnlyThePassedListeningSocketIsUsed) {
  const auto refusal = [this](int descriptor) {
    const auto listener = transport_.listenOn(descriptor, {}, [](auto) {});
    EXPECT_FALSE(listener);
    EXPECT_EQ(listener.error().code, ErrorCode::kInvalid);
    return describe(listener.error());
  };
  EXPECT_EQ(refusal(-1), "descriptor -1 is not the first that is passed to a process, 3");
  EXPECT_EQ(refusal(4), "descriptor 4 is not the first that is passed to a process, 3");
  const UniqueFd saved(::fcntl(3, F_DUPFD_CLOEXEC, 100));
  ASSERT_TRUE(saved);  // The test uses this number already, most likely for the loop.
  const UniqueFd plain = boundSocket(false);
  ASSERT_EQ(::dup3(plain.get(), 3, O_CLOEXEC), 3);
  EXPECT_EQ(refusal(3), "descriptor 3 is not a listening socket");
  const UniqueFd datagrams(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::dup3(datagrams.get(), 3, O_CLOEXEC), 3);
  EXPECT_EQ(refusal(3), "descriptor 3 is not a Unix stream socket");
  ASSERT_EQ(::dup3(saved.get(), 3, O_CLOEXEC), 3);
}

TEST_F(DBusPeerProcessTest, AKilledServersCallsFailAndItsNameIsReplaced) {
  const Listen listen = [this](DBusPeerTransport& transport,
                               PeerTransport::NewConnection onConnection) {
    return transport.listen(path_, {}, std::move(onConnection));
  };
  startServer(listen);
  auto connection = connect();
  ASSERT_TRUE(connection);
  EXPECT_EQ(connection->peer().process, server_);
  EXPECT_EQ(connection->peerState(), PeerState::kUnchanged);
  std::vector<std::string> log;
  connection->setHandlers({.message = {}, .death = [&](const Error&) {
                             log.push_back("death");
                             loop_->stop();
                           }});
  for (int i = 0; i < 2; ++i) {
    connection->callAsync("keep", {}, Duration::max(), [&](const MessageResult& result) {
      log.push_back(result ? "answered" : result.error().name);
    });
  }
  EXPECT_TRUE(connection->call("echo:", {Value(1)}, 60s));
  kill();
  EXPECT_EQ(connection->peerState(), PeerState::kEnded);
  loop_->run();
  const std::string gone = kNSInvalidSendPortException;
  EXPECT_EQ(log, (std::vector<std::string>{gone, gone, "death"}));
  EXPECT_EQ(transport_.connect(path_, {}).error().kind, PeerConnectFailure::Kind::kNobodyThere);

  startServer(listen);
  connection = connect();
  ASSERT_TRUE(connection);
  EXPECT_EQ(connection->call("echo:", {Value("new")}, 60s), MessageResult("new"));
}

TEST_F(DBusPeerProcessTest, WithoutDescriptorsNewConnectionsAreClosedWithoutSpinning) {
#ifdef __SANITIZE_ADDRESS__
  // The sanitizer's check of types opens a pipe of its own, which fails without descriptors.
  GTEST_SKIP() << "the sanitizer needs descriptors itself";
#endif
  startServer([this](DBusPeerTransport& transport, PeerTransport::NewConnection onConnection) {
    auto listener = transport.listen(path_, {}, std::move(onConnection));
    const int next = ::fcntl(0, F_DUPFD_CLOEXEC, 0);
    ::close(next);
    const rlimit few{static_cast<rlim_t>(next) + 3, static_cast<rlim_t>(next) + 3};
    ::setrlimit(RLIMIT_NOFILE, &few);
    return listener;
  });
  std::vector<std::unique_ptr<PeerConnection>> held;
  while (auto connection = connect()) held.push_back(std::move(connection));
  EXPECT_GE(held.size(), 1u);
  EXPECT_LE(held.size(), 3u);
  const Duration before = processorTime();
  const Instant start = loop_->now();
  for (int i = 0; i < 3; ++i) {
    const auto refused = transport_.connect(path_, {.timeout = 60s});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, PeerConnectFailure::Kind::kRefused);
  }
  EXPECT_LT(processorTime() - before, (loop_->now() - start) / 2);
  for (const auto& connection : held) EXPECT_TRUE(connection->call("echo:", {Value(1)}, 60s));
  held.pop_back();
  // A connection that comes before the server has noticed is closed; soon another one is accepted.
  std::unique_ptr<PeerConnection> again;
  for (int i = 0; i < 10 && !again; ++i) again = connect();
  ASSERT_TRUE(again);
  EXPECT_TRUE(again->call("echo:", {Value(1)}, 60s));
}

}  // namespace
}  // namespace platform
