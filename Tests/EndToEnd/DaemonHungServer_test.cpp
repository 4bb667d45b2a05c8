// A configuration server that exists and does not answer.

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonHungServer : public DaemonFixture {
 protected:
  // The name has an owner that does nothing.
  void listen() {
    const std::string path = pathOfConnection(root_.path(), "com.vantor.service.configd.status");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    socket_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    ASSERT_EQ(::listen(socket_.get(), 64), 0);
  }

  // Accepts the waiting connections and keeps them.
  void accept() {
    for (;;) {
      UniqueFd peer(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!peer) return;
      peers_.push_back(std::move(peer));
    }
  }

  // Starts a daemon whose configuration server is a program that vends nothing, and makes it ask
  // three more times whether the server is up.
  void startAndAskAgain() {
    services_ = 1;
    Dictionary catalogue = DaemonRoot::catalogue(1);
    Dictionary services = *catalogue["Services"].dictionary();
    services.set(DaemonRoot::kPrimary, DaemonRoot::service(DaemonRoot::kPrimary));
    catalogue.set("Services", std::move(services));
    root_.setCatalogue(catalogue);
    root_.startDaemon();
    root_.awaitStart();
    UserInterfaceClient installer(root_, UserInterfaceClient::kInstallerServer);
    for (std::size_t asked = 2; asked <= 4 && !HasFailure(); ++asked) {
      EXPECT_EQ(installer.ask("evaluateServices"), MessageResult(true));
      root_.awaitLog("Unable to establish a valid connection to the vended object", asked);
    }
    EXPECT_GT(root_.processOf(DaemonRoot::kPrimary), 0);
  }

  UniqueFd socket_;
  std::vector<UniqueFd> peers_;
};

TEST_F(DaemonHungServer, AServerThatNeverAcceptsIsWaitedForOnce) {
  ASSERT_NO_FATAL_FAILURE(listen());
  startAndAskAgain();
  accept();
  EXPECT_EQ(peers_.size(), 1U);
}

TEST_F(DaemonHungServer, AServerThatNeverAnswersIsWaitedForOnce) {
  ASSERT_NO_FATAL_FAILURE(listen());
  const auto watch =
      root_.loop().watchReadable(socket_.get(), Urgency::kOrdinary, [this] { accept(); });
  ASSERT_TRUE(watch);
  startAndAskAgain();
  EXPECT_EQ(peers_.size(), 1U);
}

}  // namespace
}  // namespace platform
