#include "Benchmarks/RawEcho.h"

#include <csignal>
#include <fstream>

#include <dbus/dbus.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace benchmarks {

using platform::DBusErrorText;
using platform::UniqueDBusConnection;
using platform::UniqueDBusMessage;
using platform::UniqueDBusServer;
using platform::UniqueFd;

void pinTo(unsigned processor, pid_t thread) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor % static_cast<unsigned>(::sysconf(_SC_NPROCESSORS_ONLN)), &set);
  ::sched_setaffinity(thread, sizeof(set), &set);
}

Pinned::Pinned(unsigned processor) {
  ::sched_getaffinity(0, sizeof(before_), &before_);
  pinTo(processor);
}

Pinned::~Pinned() { ::sched_setaffinity(0, sizeof(before_), &before_); }

ServerProcess::ServerProcess(const Serve& serve) {
  ::sched_getaffinity(0, sizeof(before_), &before_);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return;
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  process_ = ::fork();
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    pinTo(1);
    ::malloc_trim(0);  // Otherwise the server would fill the memory that this process has freed.
    serve(path(), writeEnd.get());
    ::_exit(0);
  }
  writeEnd.reset();
  char ready = 0;
  started_ = ::read(readEnd.get(), &ready, 1) == 1;
  pinTo(0);
}

ServerProcess::~ServerProcess() {
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
  ::sched_setaffinity(0, sizeof(before_), &before_);
}

double ServerProcess::residentBytes() const {
  std::ifstream file("/proc/" + std::to_string(process_) + "/statm");
  double pages = 0;
  double resident = 0;
  file >> pages >> resident;
  return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

std::chrono::nanoseconds ServerProcess::processorTime() const {
  clockid_t clock{};
  timespec time{};
  ::clock_getcpuclockid(process_, &clock);
  ::clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

void sayStarted(int started) {
  if (::write(started, "y", 1) != 1) ::_exit(1);
}

namespace {

// The answer to a call with that number.
using Answer = UniqueDBusMessage (*)(DBusMessage* call, dbus_int64_t number);

// Uses the minimum that libdbus needs: a watch for accepting, then its own loop.
void serve(const std::string& path, int started, Answer answer) {
  const std::string address = "unix:path=" + path;
  DBusErrorText error;
  const UniqueDBusServer server(dbus_server_listen(address.c_str(), error.get()));
  static DBusWatch* accepting = nullptr;
  static DBusConnection* accepted = nullptr;
  static Answer answering = nullptr;
  answering = answer;
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
        dbus_connection_send(to, answering(message, number).get(), nullptr);
        return DBUS_HANDLER_RESULT_HANDLED;
      },
      nullptr, nullptr);
  while (dbus_connection_read_write_dispatch(connection.get(), -1)) {
  }
}

}  // namespace

void serveRawEcho(const std::string& path, int started) {
  serve(path, started, [](DBusMessage* call, dbus_int64_t number) {
    UniqueDBusMessage answer(dbus_message_new_method_return(call));
    dbus_message_append_args(answer.get(), DBUS_TYPE_INT64, &number, DBUS_TYPE_INVALID);
    return answer;
  });
}

void serveRawDescriptor(const std::string& path, int started) {
  serve(path, started, [](DBusMessage* call, dbus_int64_t /*number*/) {
    static const int kDescriptor = ::open("/dev/null", O_PATH | O_CLOEXEC);
    UniqueDBusMessage answer(dbus_message_new_method_return(call));
    dbus_message_append_args(answer.get(), DBUS_TYPE_UNIX_FD, &kDescriptor, DBUS_TYPE_INVALID);
    return answer;
  });
}

RawEchoClient::RawEchoClient(const std::string& path) {
  DBusErrorText error;
  connection_.reset(dbus_connection_open_private(("unix:path=" + path).c_str(), error.get()));
}

UniqueDBusMessage RawEchoClient::ask() const {
  const UniqueDBusMessage message(
      dbus_message_new_method_call(nullptr, "/", "com.vantor.Peer", "echo_"));
  dbus_int64_t number = 7;
  dbus_message_append_args(message.get(), DBUS_TYPE_INT64, &number, DBUS_TYPE_INVALID);
  DBusErrorText error;
  return UniqueDBusMessage(dbus_connection_send_with_reply_and_block(
      connection_.get(), message.get(), 60'000, error.get()));
}

bool RawEchoClient::roundTrip() const {
  dbus_int64_t number = 0;
  if (const UniqueDBusMessage answer = ask()) {
    dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_INT64, &number, DBUS_TYPE_INVALID);
  }
  return number == 7;
}

bool RawEchoClient::roundTripForDescriptor() const {
  int descriptor = -1;
  if (const UniqueDBusMessage answer = ask()) {
    dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_INVALID);
  }
  return static_cast<bool>(UniqueFd(descriptor));
}

void rawRoundTrips(benchmark::State& state) {
  const ServerProcess server(&serveRawEcho);
  if (!server.started()) return state.SkipWithError("no server");
  const RawEchoClient client(server.path());
  if (!client.isConnected()) return state.SkipWithError("no connection");
  for (auto _ : state) {
    if (!client.roundTrip()) return state.SkipWithError("another answer");
  }
}

}  // namespace benchmarks
