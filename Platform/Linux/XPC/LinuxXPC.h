#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/Peers/PassedSocket.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Values/Error.h"
#include "Platform/XPC/XPC.h"

namespace platform {

// XPC for one program. Its connections have a thread and a loop of their own.
class LinuxXPC {
 public:
  // The threads that serve the requests of one listener. With two, a long request does not block
  // the others. Objects that serve at once run on the loop's thread if possible, and block neither.
  static constexpr std::size_t kThreadsPerListener = 2;

  // `places` says where the sockets of Mach services are; a passed socket is used as it is. The log
  // outlives this. A program with other transports shares its accounts with them, and one with
  // other servers its limits of log lines. Fails with kExhausted if there are no descriptors or
  // no threads.
  static Result<std::unique_ptr<LinuxXPC>> make(
      SystemLog& log, ListenerPlaces places, std::optional<PassedSocket> passed,
      std::shared_ptr<PeerAccounts> accounts = DBusPeerTransport::makeAccounts(),
      std::shared_ptr<UserLines> lines = nullptr);

  LinuxXPC(const LinuxXPC&) = delete;
  LinuxXPC& operator=(const LinuxXPC&) = delete;
  // Ends the connections and blocks until running requests have been served.
  ~LinuxXPC();

  // Ends it on a thread of its own. The future is ready when that is done, and waits for nobody: a
  // check of a signature or a read of a disk that hangs can't be cancelled. If there is no room for
  // a thread, it is never ready. A program that can't wait that long has to end by endProgramNow()
  // (Logging/LogAtEnd.h).
  static std::future<void> endAside(std::unique_ptr<LinuxXPC> xpc);

  XPC& xpc() { return *xpc_; }

 private:
  LinuxXPC(SystemLog& log, ListenerPlaces places, std::optional<PassedSocket> passed,
           std::shared_ptr<PeerAccounts> accounts, std::shared_ptr<UserLines> lines,
           std::unique_ptr<AsioRunLoop> loop);

  // An action for which a thread waits.
  struct Awaited {
    const std::function<void()>* action;
    std::shared_ptr<std::promise<void>> done;  // shared with the thread
  };

  void performOnLoop(const std::function<void()>& action);
  void performNext();

  const ListenerPlaces places_;
  std::mutex mutex_;
  std::deque<Awaited> awaited_;
  bool loopHasEnded_ = false;
  const std::unique_ptr<AsioRunLoop> loop_;
  DBusPeerTransport transport_;
  std::optional<XPC> xpc_;
  std::thread thread_;
  std::promise<void> ended_;    // for endAside()
  std::thread::id loopThread_;  // other threads may read it while the thread is joined
};

}  // namespace platform
