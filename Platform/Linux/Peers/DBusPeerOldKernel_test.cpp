// A kernel without SO_PEERPIDFD.

#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"

namespace platform {
namespace {

constexpr std::uint64_t kPeerPidfdOption = 77;

// A server with one client of this process, and one that another process has connected and passed
// on to this one. That process has ended and is not reaped.
class UnreapedMaker : protected PeerTransportBed {
 public:
  UnreapedMaker() : PeerTransportBed(std::make_unique<PeerThreads>()) {
    start({.audience = PeerAudience::all()});
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    maker_ = ::fork();
    if (maker_ == 0) {
      ::_exit(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    siginfo_t end{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(maker_), &end, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(end.si_status, 0);
    holder_ = std::make_unique<RawPeer>(std::move(socket));
    holder_->authenticate();
  }
  UnreapedMaker(const UnreapedMaker&) = delete;
  UnreapedMaker& operator=(const UnreapedMaker&) = delete;
  ~UnreapedMaker() { EXPECT_EQ(::waitpid(maker_, nullptr, 0), maker_); }

  std::vector<PeerState> statesOfClients() {
    std::vector<PeerState> states;
    harness_->there([&](PeerTransport&) {
      for (const auto& connection : server_.connections) states.push_back(connection->peerState());
    });
    return states;
  }

 private:
  pid_t maker_ = 0;
  std::unique_ptr<RawPeer> holder_;
};

TEST(DBusPeerOldKernelTest, AMakerThatIsNotReapedHasEnded) {
  int asked = 0;
  const auto refuse = [&](const InterceptedCall& call) {
    if (call.arguments[1] != SOL_SOCKET || call.arguments[2] != kPeerPidfdOption) return 0;
    ++asked;
    return ENOPROTOOPT;
  };
  // The threads that the body starts have its filter, too.
  withInterceptedSystemCall(SYS_getsockopt, refuse, [] {
    UnreapedMaker peers;
    EXPECT_EQ(peers.statesOfClients(), (std::vector{PeerState::kUnchanged, PeerState::kPassedOn}));
  });
  EXPECT_GE(asked, 2);
}

}  // namespace
}  // namespace platform
