#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/Peers/PassedSocket.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"
#include "Platform/XPC/XPC.h"

namespace platform {

// The XPC of a program, with a thread and a loop of its own for its connections.
class LinuxXPC {
 public:
  // Threads for the requests of one listener: two, so that a long one leaves another going. Objects
  // that serve at once hold up neither; they are served on the loop's thread where that can be.
  static constexpr std::size_t kThreadsPerListener = 2;

  // Mach services are sockets below `root`; one that was passed to the process is used as it is.
  // The log outlives this. Fails with kExhausted without descriptors.
  static Result<std::unique_ptr<LinuxXPC>> make(SystemLog& log, std::string root,
                                                std::optional<PassedSocket> passed);

  LinuxXPC(const LinuxXPC&) = delete;
  LinuxXPC& operator=(const LinuxXPC&) = delete;
  // Ends the connections; waits for requests that are being served.
  ~LinuxXPC();

  XPC& xpc() { return *xpc_; }

  // How many connections one user may have to a listener, in a process that may open so many
  // descriptors. Everybody may connect, so that nobody is to have more than a quarter of them: with
  // messages that it never completes, too. At least one, at most kMaxPeerConnectionsPerUser.
  static std::size_t connectionsPerUser(std::uint64_t descriptorLimit);

 private:
  LinuxXPC(SystemLog& log, std::string root, std::optional<PassedSocket> passed,
           std::unique_ptr<AsioRunLoop> loop);

  // What a thread waits for.
  struct Awaited {
    const std::function<void()>* action;
    std::shared_ptr<std::promise<void>> done;  // shared with the thread
  };

  void performOnLoop(const std::function<void()>& action);
  void performNext();

  const std::string root_;
  std::mutex mutex_;
  std::deque<Awaited> awaited_;
  bool loopHasEnded_ = false;
  const std::unique_ptr<AsioRunLoop> loop_;
  DBusPeerTransport transport_{*loop_};
  std::optional<XPC> xpc_;
  std::thread thread_;
  std::thread::id loopThread_;  // that other threads may read while it is joined
};

}  // namespace platform
