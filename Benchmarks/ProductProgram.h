#pragma once

#include <memory>

#include <sys/types.h>

#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Messages/NSProxy.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace benchmarks {

// The parts of the platform that every program of a product uses. Its log goes nowhere.
struct ProductProgram {
  // `root`: the platform root, which outlives this object.
  explicit ProductProgram(const platform::TemporaryFolder& root);

  std::unique_ptr<platform::LogSink> sink;
  platform::SystemLog log;
  std::unique_ptr<platform::AsioRunLoop> loop;
  platform::LinuxSystemInformation system;
  platform::DBusPeerTransport transport{*loop};
  platform::NotificationCenter center;
  platform::NamedConnections connections;
  platform::ProtocolTable protocols;
};

// A program of the product that runs in a process of its own, which ends with this object.
class ProductServer {
 public:
  // `serve` calls announceStart() when it can be asked, and does not return while it is wanted.
  using Serve = void (*)(const platform::TemporaryFolder& root, int started);
  // Forks, so the calling process has no other thread. Returns when the server can be asked.
  ProductServer(const platform::TemporaryFolder& root, Serve serve);
  ProductServer(const ProductServer&) = delete;
  ProductServer& operator=(const ProductServer&) = delete;
  ~ProductServer();

  bool started() const { return started_; }

 private:
  pid_t process_ = -1;
  bool started_ = false;
};

// False if the process that has forked the server is gone.
[[nodiscard]] bool announceStart(int started);

// Serves the object by a name of the product until the process is killed.
void serveObject(const platform::TemporaryFolder& root, int started, const char* name,
                 const char* protocol, platform::MessageReceiver& object);

// The configuration server as far as the daemon asks it: it is up. A daemon that starts beside it
// is in normal mode at once.
void serveStatus(const platform::TemporaryFolder& root, int started);

}  // namespace benchmarks
