// What names, checkers and proxies add to the transport between processes.

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Platform/Linux/AsioRunLoop.h"
#include "Platform/Linux/DBusPeerTransport.h"
#include "Platform/Linux/UniqueFd.h"
#include "Platform/Testing/ConnectedProgram.h"
#include "Platform/Testing/TemporaryFolder.h"

namespace benchmarks {
namespace {

using namespace std::chrono_literals;
using namespace platform;

const bool kRoundTrip = atMost({"named-round-trip", 1.3,
                                "a message to a distant object and its result, one value each way "
                                "/ the same by the transport's call(), both processes pinned"});

const Protocol kEcho("Echo", {{"echo:"}});

// Unpinned, figures vary threefold.
void pinTo(unsigned processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor % static_cast<unsigned>(::sysconf(_SC_NPROCESSORS_ONLN)), &set);
  ::sched_setaffinity(0, sizeof(set), &set);
}

struct Echo final : MessageReceiver {
  MessageResult receiveMessage(std::string_view, const Array& arguments) override {
    return arguments.front();
  }
};

// A program on the real transport.
struct Program {
  explicit Program(const TemporaryFolder& folder)
      : program(*loop, transport, [&folder](std::string_view name) { return folder.path(name); }) {}

  std::unique_ptr<AsioRunLoop> loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport{*loop};
  ConnectedProgram program;
};

// Serves the name "named" by a root object, and "bare" by the transport alone.
void serve(const TemporaryFolder& folder, int started) {
  Program server(folder);
  TokenDelegate delegate("server", "client");
  Echo echo;
  const auto connection = server.program.connections.makeConnection();
  connection->setDelegate(&delegate);
  connection->setRootObject(std::make_shared<NSProtocolChecker>(&echo, &kEcho));
  std::unique_ptr<PeerConnection> bare;
  const auto listener =
      server.transport.listen(folder.path("bare"), {}, [&](std::unique_ptr<PeerConnection> peer) {
        peer->admit();
        peer->setHandlers({.message =
                               [](PeerMessage message) {
                                 std::ignore =
                                     message.reply->answer(std::move(message.arguments.front()));
                               },
                           .death = {}});
        bare = std::move(peer);
      });
  if (!listener || !connection->registerName("named") || ::write(started, "y", 1) != 1) return;
  server.loop->run();
}

class ServerProcess {
 public:
  ServerProcess() {
    ::sched_getaffinity(0, sizeof(before_), &before_);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    process_ = ::fork();
    if (process_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      pinTo(1);
      serve(folder_, writeEnd.get());
      ::_exit(0);
    }
    writeEnd.reset();
    char ready = 0;
    started_ = ::read(readEnd.get(), &ready, 1) == 1;
    pinTo(0);
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    ::sched_setaffinity(0, sizeof(before_), &before_);
  }

  bool started() const { return started_; }
  const TemporaryFolder& folder() const { return folder_; }

 private:
  TemporaryFolder folder_;
  cpu_set_t before_{};
  pid_t process_ = 0;
  bool started_ = false;
};

void roundTripSubject(benchmark::State& state) {
  const ServerProcess server;
  if (!server.started()) return state.SkipWithError("no server");
  Program client(server.folder());
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
  const ServerProcess server;
  if (!server.started()) return state.SkipWithError("no server");
  Program client(server.folder());
  const auto connection = client.transport.connect(server.folder().path("bare"), {});
  if (!connection) return state.SkipWithError("no connection");
  for (auto _ : state) {
    if ((*connection)->call("echo:", {Value(7)}, 60s) != PeerResult(7))
      return state.SkipWithError("another answer");
  }
}
BENCHMARK(roundTripBaseline)->Name("named-round-trip/baseline")->UseRealTime();

}  // namespace
}  // namespace benchmarks
