// The cost that names, checkers and proxies add to the transport between processes.

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RawEcho.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"

namespace benchmarks {
namespace {

using namespace std::chrono_literals;
using namespace platform;

const bool kRoundTrip = atMost({"named-round-trip", 1.3,
                                "a message to a distant object and its result, one value each way "
                                "/ the same by the transport's call(), both processes pinned"});

const Protocol kEcho("Echo", {{"echo:"}});

struct Echo final : MessageReceiver {
  MessageResult receiveMessage(std::string_view, const Array& arguments) override {
    return arguments.front();
  }
};

// A program on the real transport.
struct Program {
  explicit Program(const std::string& prefix)
      : program(*loop, transport,
                [prefix](std::string_view name) { return prefix + "." + std::string(name); }) {}

  std::unique_ptr<AsioRunLoop> loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport{*loop};
  ConnectedProgram program;
};

// Serves the name "named" by a root object, and "bare" by the transport alone.
void serve(const std::string& path, int started) {
  Program server(path);
  TokenDelegate delegate("server", "client");
  Echo echo;
  const auto connection = server.program.connections.makeConnection();
  connection->setDelegate(&delegate);
  connection->setRootObject(std::make_shared<NSProtocolChecker>(&echo, &kEcho));
  std::unique_ptr<PeerConnection> bare;
  const auto listener =
      server.transport.listen(path + ".bare", {}, [&](std::unique_ptr<PeerConnection> peer) {
        peer->admit();
        peer->setHandlers({.message =
                               [](PeerMessage message) {
                                 std::ignore =
                                     message.reply->answer(std::move(message.arguments.front()));
                               },
                           .death = {}});
        bare = std::move(peer);
      });
  if (!listener || !connection->registerName("named")) return;
  sayStarted(started);
  server.loop->run();
}

void roundTripSubject(benchmark::State& state) {
  const ServerProcess server(&serve);
  if (!server.started()) return state.SkipWithError("no server");
  Program client(server.path());
  TokenDelegate delegate("client", "server");
  const auto connection = client.program.connections.connectionWithRegisteredName("named");
  if (!connection) return state.SkipWithError("no connection");
  connection->setDelegate(&delegate);
  const auto proxy = connection->rootProxy();
  if (!proxy) return state.SkipWithError("not authenticated");
  (*proxy)->setProtocolForProxy(&kEcho);
  for (auto _ : state) {
    if ((*proxy)->sendMessage("echo:", {Value(7)}) != MessageResult(7))
      return state.SkipWithError("another answer");
  }
}
BENCHMARK(roundTripSubject)->Name("named-round-trip/subject")->UseRealTime();

void roundTripBaseline(benchmark::State& state) {
  const ServerProcess server(&serve);
  if (!server.started()) return state.SkipWithError("no server");
  Program client(server.path());
  const auto connection = client.transport.connect(server.path() + ".bare", {});
  if (!connection) return state.SkipWithError("no connection");
  for (auto _ : state) {
    if ((*connection)->call("echo:", {Value(7)}, 60s) != MessageResult(7))
      return state.SkipWithError("another answer");
  }
}
BENCHMARK(roundTripBaseline)->Name("named-round-trip/baseline")->UseRealTime();

}  // namespace
}  // namespace benchmarks
