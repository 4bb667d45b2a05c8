// The cost that the transport between processes adds to libdbus, and the cost of an idle client.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RawEcho.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"

namespace benchmarks {
namespace {

using namespace std::chrono_literals;
using namespace platform;

constexpr std::size_t kClients = 10'000;
constexpr double kBytesPerClient = 8 * 1024;
// The share of one processor. Idle clients should cost nothing, but less than a clock tick can't be
// measured.
constexpr double kIdleProcessorShare = 0.01;

const bool kRoundTrip = atMost({"peer-round-trip", 1.5,
                                "call() of a two-way message to its answer, one value each way / "
                                "the same by libdbus alone, peer to peer, both processes pinned"});
const bool kMemory = atMost(
    {"peer-idle-memory", 1, "bytes (for ns) of the server per idle client, of 10,000 / 8 KiB"});
const bool kProcessor = atMost({"peer-idle-processor", 1,
                                "ns of processor time in an idle second of a server with 10,000 "
                                "clients / 1% of a processor"});

void serveOurs(const std::string& path, int started) {
  const auto loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport(*loop);
  std::vector<std::unique_ptr<PeerConnection>> connections;
  const auto listener = transport.listen(path, {}, [&](std::unique_ptr<PeerConnection> peer) {
    peer->admit();
    peer->setHandlers({.message =
                           [](PeerMessage message) {
                             std::ignore =
                                 message.reply->answer(std::move(message.arguments.front()));
                           },
                       .death = [](const Error&) {}});
    connections.push_back(std::move(peer));
  });
  if (listener) sayStarted(started);
  loop->run();
}

void roundTripSubject(benchmark::State& state) {
  const ServerProcess server(&serveOurs);
  if (!server.started()) return state.SkipWithError("no server");
  const auto loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport(*loop);
  const auto connection = transport.connect(server.path(), {});
  if (!connection) return state.SkipWithError("no connection");
  for (auto _ : state) {
    const MessageResult answer = (*connection)->call("echo:", {Value(7)}, 60s);
    if (answer != MessageResult(7)) return state.SkipWithError("another answer");
  }
}
BENCHMARK(roundTripSubject)->Name("peer-round-trip/subject")->UseRealTime();

BENCHMARK(rawRoundTrips)->Name("peer-round-trip/baseline")->UseRealTime();

// A server with 10,000 idle clients, which all belong to this process.
class IdleClients {
 public:
  IdleClients() {
    static_cast<void>(raiseDescriptorLimit());
    server_.emplace(&serveOurs);
    before_ = server_->residentBytes();
    for (std::size_t i = 0; i < kClients; ++i) {
      auto client = transport_.connect(server_->path(), {.timeout = 60s});
      if (!client) return;
      clients_.push_back(std::move(*client));
    }
  }

  bool complete() const { return clients_.size() == kClients; }
  const ServerProcess& server() const { return *server_; }
  double bytesPerClient() const {
    return (server_->residentBytes() - before_) / static_cast<double>(kClients);
  }

 private:
  std::optional<ServerProcess> server_;
  double before_ = 0;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport_{*loop_};
  std::vector<std::unique_ptr<PeerConnection>> clients_;
};

void idleMemory(benchmark::State& state) {
  const IdleClients clients;
  if (!clients.complete()) return state.SkipWithError("10,000 descriptors are not to be had");
  for (auto _ : state) state.SetIterationTime(clients.bytesPerClient() * 1e-9);
}
BENCHMARK(idleMemory)->Name("peer-idle-memory/subject")->UseManualTime()->Iterations(1);

void allowedMemory(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(kBytesPerClient * 1e-9);
}
BENCHMARK(allowedMemory)->Name("peer-idle-memory/baseline")->UseManualTime()->Iterations(1);

void idleProcessor(benchmark::State& state) {
  const IdleClients clients;
  if (!clients.complete()) return state.SkipWithError("10,000 descriptors are not to be had");
  for (auto _ : state) {
    const auto before = clients.server().processorTime();
    ::usleep(1'000'000);
    const std::chrono::duration<double> used = clients.server().processorTime() - before;
    state.SetIterationTime(used.count());
  }
}
BENCHMARK(idleProcessor)->Name("peer-idle-processor/subject")->UseManualTime()->Iterations(1);

void allowedProcessor(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(kIdleProcessorShare);
}
BENCHMARK(allowedProcessor)->Name("peer-idle-processor/baseline")->UseManualTime()->Iterations(1);

}  // namespace
}  // namespace benchmarks
