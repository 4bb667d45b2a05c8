#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/types.h>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace benchmarks {

// Unpinned, figures of round trips vary threefold. `thread` 0 is the calling one.
void pinTo(unsigned processor, pid_t thread = 0);

// Keeps the calling thread, and the threads and processes that it starts, on one processor for as
// long as it lives.
class Pinned {
 public:
  explicit Pinned(unsigned processor);
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;
  ~Pinned();

 private:
  cpu_set_t before_{};
};

// A server in its own process, which ends with this object. It is pinned to one processor, and the
// calling thread to the other, for as long as this lives.
class ServerProcess {
 public:
  // `serve` listens at the path, writes to `started`, and does not return.
  using Serve = std::function<void(const std::string& path, int started)>;
  explicit ServerProcess(const Serve& serve);
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess();

  bool started() const { return started_; }
  std::string path() const { return folder_.path("server"); }
  double residentBytes() const;
  std::chrono::nanoseconds processorTime() const;

 private:
  platform::TemporaryFolder folder_;
  cpu_set_t before_{};
  pid_t process_ = 0;
  bool started_ = false;
};

void sayStarted(int started);

// Echoes a number, using libdbus alone, peer to peer: the baseline of all our round trips.
void serveRawEcho(const std::string& path, int started);
// The same, with a descriptor in each answer.
void serveRawDescriptor(const std::string& path, int started);

class RawEchoClient {
 public:
  explicit RawEchoClient(const std::string& path);
  bool isConnected() const { return static_cast<bool>(connection_); }
  // Whether the right answer came.
  bool roundTrip() const;
  // Whether a descriptor came with it.
  bool roundTripForDescriptor() const;

 private:
  platform::UniqueDBusMessage ask() const;

  platform::UniqueDBusConnection connection_;
};

// The baseline of questions to another process: repeatedly sends one number to the echo.
void rawRoundTrips(benchmark::State& state);

}  // namespace benchmarks
