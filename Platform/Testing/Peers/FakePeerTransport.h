#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Peers/PeerAccounts.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/Peers/PeerTurns.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

class FakePeerTransport;

// The names on which the processes of a test listen.
class FakePeerNetwork {
 public:
  explicit FakePeerNetwork(VirtualRunLoop& loop) : loop_(loop) {}
  FakePeerNetwork(const FakePeerNetwork&) = delete;
  FakePeerNetwork& operator=(const FakePeerNetwork&) = delete;

  VirtualRunLoop& loop() { return loop_; }

  // The mode of the socket on which a process listens.
  std::uint32_t socketMode(const std::string& path) const;

 private:
  friend class FakePeerTransport;

  VirtualRunLoop& loop_;
  class Listener;
  std::map<std::string, Listener*> listeners_;
  std::size_t anonymous_ = 0;  // the number of anonymous listeners so far
};

// The connections of one process. All processes share the virtual loop and the test's only thread:
// the other process serves a blocking call at once, inside the call. If it keeps the answer,
// virtual time passes until an outside event brings the answer or the time-out ends.
//
// As in the real one, a process that waits in a call of its own serves only that connection, and
// only if its options permit it. It must outlive its connections, and the network all processes.
class FakePeerTransport final : public PeerTransport {
 public:
  // The descriptors that the process may open, if it has accounts of its own.
  static constexpr std::uint64_t kDescriptors = 65'536;

  FakePeerTransport(FakePeerNetwork& network, PeerCredentials self);
  // All transports and the XPC of a process share the accounts.
  FakePeerTransport(FakePeerNetwork& network, PeerCredentials self,
                    std::shared_ptr<PeerAccounts> accounts);
  FakePeerTransport(const FakePeerTransport&) = delete;
  FakePeerTransport& operator=(const FakePeerTransport&) = delete;
  ~FakePeerTransport() override;

  Result<std::unique_ptr<PeerListener>> listen(const std::string& path,
                                               const PeerListenerOptions& options,
                                               NewConnection onConnection) override;
  Result<Anonymous> listenAnonymously(const PeerListenerOptions& options,
                                      NewConnection onConnection) override;
  // Any number: the descriptor stands for a name "passed/NUMBER" to which clients can connect.
  Result<std::unique_ptr<PeerListener>> listenOn(Descriptor passed,
                                                 const PeerListenerOptions& options,
                                                 NewConnection onConnection) override;
  std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> connect(
      const std::string& path, const PeerConnectOptions& options) override;
  std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> connectToEndpoint(
      const NSXPCListenerEndpoint& endpoint, const PeerConnectOptions& options) override;

  // The process stops reading from its sockets until goOn().
  void hang();
  void goOn();

  // The process gives up its user for another one. Its connections keep its credentials.
  void becomeUser(std::uint32_t user) { self_.user = user; }

  // The process has no descriptors left, until it has some again. Its connections work without.
  void setShortage(bool isShort) { hasShortage_ = isShort; }

  // The process ends after another one has got its connections passed on and has closed them for
  // writing. Its requests are still served, and the other process would read the answers.
  void leaveToReader() { leftToReader_ = true; }

  // The process ends: its connections end without callbacks for it. The names on which it listened
  // stay as leftovers.
  void die();

 private:
  class End;
  class Connection;
  class Reply;
  friend class FakePeerNetwork::Listener;

  bool mayServe(const End* end) const;
  void serveAll();

  FakePeerNetwork& network_;
  PeerCredentials self_;
  const std::shared_ptr<PeerAccounts> accounts_;
  const std::shared_ptr<PeerTurns> turns_;
  bool hung_ = false;
  bool dead_ = false;
  bool leftToReader_ = false;
  bool hasShortage_ = false;
  std::vector<const End*> waitingIn_;  // running calls, the innermost last
  std::vector<std::weak_ptr<End>> ends_;
};

}  // namespace platform
