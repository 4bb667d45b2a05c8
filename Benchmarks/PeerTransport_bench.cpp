// What the transport between processes adds to libdbus, and what an idle client costs.

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <dbus/dbus.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Platform/Linux/AsioRunLoop.h"
#include "Platform/Linux/DBusHandles.h"
#include "Platform/Linux/DBusPeerTransport.h"
#include "Platform/Linux/DescriptorLimit.h"
#include "Platform/Linux/UniqueFd.h"
#include "Platform/Testing/TemporaryFolder.h"

namespace benchmarks {
namespace {

using namespace std::chrono_literals;
using namespace platform;

constexpr std::size_t kClients = 10'000;
constexpr double kBytesPerClient = 8 * 1024;
// Of one processor, which no idle client may cost anything of; less than a clock tick can't be told
// from nothing.
constexpr double kIdleProcessorShare = 0.01;

const bool kRoundTrip = atMost({"peer-round-trip", 1.5,
                                "call() of a two-way message to its answer, one value each way / "
                                "the same by libdbus alone, peer to peer, both processes pinned"});
const bool kMemory = atMost(
    {"peer-idle-memory", 1, "bytes (for ns) of the server per idle client, of 10,000 / 8 KiB"});
const bool kProcessor = atMost({"peer-idle-processor", 1,
                                "ns of processor time in an idle second of a server with 10,000 "
                                "clients / 1% of a processor"});

// Unpinned, figures vary threefold.
void pinTo(unsigned processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor % static_cast<unsigned>(::sysconf(_SC_NPROCESSORS_ONLN)), &set);
  ::sched_setaffinity(0, sizeof(set), &set);
}

// A server in a process of its own, which ends with this object.
class ServerProcess {
 public:
  explicit ServerProcess(const std::function<void(const std::string& path, int started)>& serve) {
    ::sched_getaffinity(0, sizeof(before_), &before_);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    process_ = ::fork();
    if (process_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      pinTo(1);
      ::malloc_trim(0);  // Or the server would fill what this process has given up.
      serve(path(), writeEnd.get());
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
  std::string path() const { return folder_.path("server"); }

  double residentBytes() const {
    std::ifstream file("/proc/" + std::to_string(process_) + "/statm");
    double pages = 0;
    double resident = 0;
    file >> pages >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
  }

  std::chrono::nanoseconds processorTime() const {
    clockid_t clock{};
    timespec time{};
    ::clock_getcpuclockid(process_, &clock);
    ::clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  }

 private:
  TemporaryFolder folder_;
  cpu_set_t before_{};
  pid_t process_ = 0;
  bool started_ = false;
};

void sayStarted(int started) {
  if (::write(started, "y", 1) != 1) ::_exit(1);
}

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

// The least that libdbus itself needs: a watch to accept by, then its own loop.
void serveRaw(const std::string& path, int started) {
  const std::string address = "unix:path=" + path;
  DBusErrorText error;
  const UniqueDBusServer server(dbus_server_listen(address.c_str(), error.get()));
  static DBusWatch* accepting = nullptr;
  static DBusConnection* accepted = nullptr;
  dbus_server_set_watch_functions(
      server.get(),
      [](DBusWatch* watch, void*) -> dbus_bool_t {
        accepting = watch;
        return true;
      },
      [](DBusWatch*, void*) {}, [](DBusWatch*, void*) {}, nullptr, nullptr);
  dbus_server_set_new_connection_function(
      server.get(),
      [](DBusServer*, DBusConnection* connection, void*) {
        accepted = dbus_connection_ref(connection);
      },
      nullptr, nullptr);
  sayStarted(started);
  pollfd entry{dbus_watch_get_unix_fd(accepting), POLLIN, 0};
  ::poll(&entry, 1, -1);
  dbus_watch_handle(accepting, DBUS_WATCH_READABLE);
  const UniqueDBusConnection connection(accepted);
  dbus_connection_add_filter(
      connection.get(),
      [](DBusConnection* to, DBusMessage* message, void*) {
        if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
          return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
        dbus_int64_t number = 0;
        dbus_message_get_args(message, nullptr, DBUS_TYPE_INT64, &number, DBUS_TYPE_INVALID);
        const UniqueDBusMessage answer(dbus_message_new_method_return(message));
        dbus_message_append_args(answer.get(), DBUS_TYPE_INT64, &number, DBUS_TYPE_INVALID);
        dbus_connection_send(to, answer.get(), nullptr);
        return DBUS_HANDLER_RESULT_HANDLED;
      },
      nullptr, nullptr);
  while (dbus_connection_read_write_dispatch(connection.get(), -1)) {
  }
}

void roundTripSubject(benchmark::State& state) {
  const ServerProcess server(&serveOurs);
  if (!server.started()) return state.SkipWithError("no server");
  const auto loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport(*loop);
  const auto connection = transport.connect(server.path(), {});
  if (!connection) return state.SkipWithError("no connection");
  for (auto _ : state) {
    const PeerResult answer = (*connection)->call("echo:", {Value(7)}, 60s);
    if (answer != PeerResult(7)) return state.SkipWithError("another answer");
  }
}
BENCHMARK(roundTripSubject)->Name("peer-round-trip/subject")->UseRealTime();

void roundTripBaseline(benchmark::State& state) {
  const ServerProcess server(&serveRaw);
  if (!server.started()) return state.SkipWithError("no server");
  const std::string address = "unix:path=" + server.path();
  DBusErrorText error;
  const UniqueDBusConnection connection(dbus_connection_open_private(address.c_str(), error.get()));
  if (!connection) return state.SkipWithError("no connection");
  for (auto _ : state) {
    const UniqueDBusMessage message(
        dbus_message_new_method_call(nullptr, "/", "com.vantor.Peer", "echo_"));
    dbus_int64_t number = 7;
    dbus_message_append_args(message.get(), DBUS_TYPE_INT64, &number, DBUS_TYPE_INVALID);
    const UniqueDBusMessage answer(dbus_connection_send_with_reply_and_block(
        connection.get(), message.get(), 60'000, error.get()));
    number = 0;
    if (answer) {
      dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_INT64, &number, DBUS_TYPE_INVALID);
    }
    if (number != 7) return state.SkipWithError("another answer");
  }
}
BENCHMARK(roundTripBaseline)->Name("peer-round-trip/baseline")->UseRealTime();

// A server with 10,000 clients that say nothing, which all belong to this process.
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
