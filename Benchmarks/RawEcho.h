#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/types.h>

#include "Platform/Testing/TemporaryFolder.h"

// The baseline of everything that asks another process: what libdbus alone needs, peer to peer.
namespace benchmarks {

// A server in a process of its own, which ends with this object. It and this process each have a
// processor of their own: unpinned, figures vary threefold.
class ServerProcess {
 public:
  explicit ServerProcess(const std::function<void(const std::string& path, int started)>& serve);
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess();

  bool started() const { return started_; }
  // Where to serve; the folder is its own.
  std::string path() const { return folder_.path("server"); }

  double residentBytes() const;
  std::chrono::nanoseconds processorTime() const;

 private:
  platform::TemporaryFolder folder_;
  cpu_set_t before_{};
  pid_t process_ = 0;
  bool started_ = false;
};

// To be called by what serves, once it can be asked.
void sayStarted(int started);

// A message to an echo and its answer, one integer each way.
void rawRoundTrips(benchmark::State& state);

}  // namespace benchmarks
