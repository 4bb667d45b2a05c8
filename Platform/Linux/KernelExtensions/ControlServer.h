#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/KernelExtensions/ControlHandler.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// The control that an extension offers to root and to its own user; other peers are disconnected.
// It never blocks: a client that does not read its answer is disconnected, too. Belongs to the
// loop's thread.
class ControlServer {
 public:
  // Further clients wait until one of these disconnects.
  static constexpr std::size_t kMaxClients = 16;

  // Offers the control `name` of the platform at `root`. `loop` outlives it. Fails with kInvalid if
  // the name is not valid, and with kDenied if another process offers it.
  static Result<std::unique_ptr<ControlServer>> listen(RunLoop& loop, const std::string& root,
                                                       std::string_view name,
                                                       MakeControlHandler makeHandler);
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  // Removes the name and disconnects the clients.
  ~ControlServer();

  std::size_t clients() const { return clients_.size(); }

 private:
  struct Client {
    UniqueFd socket;
    std::unique_ptr<ControlHandler> handler;
    std::unique_ptr<RunLoopHandle> source;
  };

  ControlServer(RunLoop& loop, UniqueFd socket, SocketName name, MakeControlHandler makeHandler);
  Result<void> watchForClients();
  void accept();
  void add(UniqueFd socket);
  void drop(std::list<Client>::iterator client);
  // Returns whether the client may stay.
  bool serve(Client& client);
  int prepareToUnload() const;

  RunLoop& loop_;
  UniqueFd socket_;
  SocketName name_;
  const MakeControlHandler makeHandler_;
  std::unique_ptr<RunLoopHandle> source_;  // null while there is no room for a client
  std::unique_ptr<RunLoopHandle> pause_;   // after a failure to accept
  std::list<Client> clients_;
};

}  // namespace platform
