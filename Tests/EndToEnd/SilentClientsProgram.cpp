// Clients of the daemon that belong to another user, get all notifications and answer none. A
// client that is disconnected connects again. Prints "registered" when all have registered. The
// arguments are the platform root, the user's number and the number of clients.

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class SilentClient {
 public:
  SilentClient(AsioRunLoop& loop, std::string socket, Data token)
      : loop_(loop), socket_(std::move(socket)), token_(std::move(token)) {}

  bool connect() {
    unanswered_.clear();
    peer_.reset();
    auto made = transport_.connect(socket_, {.timeout = 5s});
    if (!made) return connectLater(), false;
    peer_ = std::move(*made);
    peer_->setHandlers(
        {.message = [this](PeerMessage message) { unanswered_.push_back(std::move(message)); },
         .death = [this](const Error&) { connectLater(); }});
    return registerClient();
  }

 private:
  bool registerClient() {
    if (!peer_->call("NSConnectionAuthenticate:", {Value(token_)}, 60s)) return false;
    const Value object =
        Dictionary{{"Number", 1},
                   {"Class", "NSObject"},
                   {"Protocols", Array{kORBServiceManagerUserInterfaceDelegateProtocol}}};
    return peer_->call("registerClient:", {Dictionary{{"NSDistantObject", object}}}, 60s)
        .has_value();
  }
  void connectLater() {
    later_ = loop_.startTimer(100ms, RunLoop::Repeat::kOnce, [this] { connect(); });
  }

  AsioRunLoop& loop_;
  DBusPeerTransport transport_{loop_};
  const std::string socket_;
  const Data token_;
  std::unique_ptr<PeerConnection> peer_;
  std::vector<PeerMessage> unanswered_;
  std::unique_ptr<RunLoopHandle> later_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const auto user = static_cast<uid_t>(std::atoi(argv[2]));
  if (::setgid(user) != 0 || ::setuid(user) != 0) return 1;
  const LinuxSystemInformation system(defaultPlatformConfiguration(argv[1]), "/proc");
  const auto loop = std::move(*AsioRunLoop::create());
  std::vector<std::unique_ptr<SilentClient>> clients;
  for (int i = std::atoi(argv[3]); i > 0; --i) {
    clients.push_back(std::make_unique<SilentClient>(
        *loop, pathOfConnection(argv[1], "com.vantor.servicemanager.userinterface.server"),
        systemProfileData(system)));
    if (!clients.back()->connect()) return 1;
  }
  std::puts("registered");
  std::fflush(stdout);
  loop->run();
  return 0;
}
