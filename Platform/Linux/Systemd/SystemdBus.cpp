#include "Platform/Linux/Systemd/SystemdBus.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <poll.h>

#include "Platform/Linux/DBus/DBusConnecting.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/Systemd/SystemdManager.h"

namespace platform {
namespace {

constexpr char kUnitExists[] = "org.freedesktop.systemd1.UnitExists";
// libdbus counts whole milliseconds.
constexpr Duration kClockTolerance = std::chrono::milliseconds(2);
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kBusObject[] = "/org/freedesktop/DBus";

// Whether systemd is on its way back: it executes itself again, or the bus starts it.
bool isAway(const DBusErrorText& error) {
  return error.is(DBUS_ERROR_SERVICE_UNKNOWN) || error.is(DBUS_ERROR_NAME_HAS_NO_OWNER) ||
         error.is("org.freedesktop.DBus.Error.Spawn.ChildExited");
}

bool isDisconnected(DBusMessage* message) {
  return dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected") != 0;
}

}  // namespace

Instant monotonicNow() { return Instant(std::chrono::steady_clock::now().time_since_epoch()); }

int millisecondsOf(Duration duration) {
  const auto rounded =
      std::chrono::ceil<std::chrono::milliseconds>(std::max(duration, Duration::zero()));
  return static_cast<int>(rounded.count());
}

Result<void> SystemdBus::connect() {
  if (connection_ && dbus_connection_get_is_connected(connection_.get())) return {};
  connection_.reset();
  const Duration limit = isHung_ ? SystemdManager::kSilentTimeOut : SystemdManager::kTimeOut;
  auto socket = connectToSocket(socket_, limit);
  if (!socket) {
    socket.error().context =
        fmt::format("the bus of systemd at {}: {}", socket_, socket.error().context);
    return std::unexpected(std::move(socket.error()));
  }
  auto connection = openOverSocket(*std::move(socket));
  if (!connection) return std::unexpected(std::move(connection.error()));
  connection_ = *std::move(connection);
  dbus_connection_set_exit_on_disconnect(connection_.get(), 0);
  std::vector<UniqueDBusMessage> hello;
  hello.emplace_back(dbus_message_new_method_call(kBusName, kBusObject, kBusName, "Hello"));
  if (auto answer = callOnce(hello, limit); !answer) {
    connection_.reset();
    return std::unexpected(std::move(answer.error()));
  }
  return {};
}

Result<std::vector<UniqueDBusMessage>> SystemdBus::callOnce(
    const std::vector<UniqueDBusMessage>& messages, Duration limit) {
  const Instant start = monotonicNow();
  std::vector<UniqueDBusPendingCall> calls;
  for (const UniqueDBusMessage& message : messages) {
    DBusPendingCall* call = nullptr;
    dbus_connection_send_with_reply(connection_.get(), message.get(), &call, millisecondsOf(limit));
    calls.emplace_back(call);
  }
  std::vector<UniqueDBusMessage> answers;
  for (std::size_t i = 0; i < messages.size(); ++i) {
    auto answer = answerTo(messages[i].get(), std::move(calls[i]), start, limit);
    if (!answer) return std::unexpected(std::move(answer.error()));
    answers.push_back(*std::move(answer));
  }
  return answers;
}

Result<UniqueDBusMessage> SystemdBus::answerTo(DBusMessage* message, UniqueDBusPendingCall call,
                                               Instant start, Duration limit) {
  const char* method = dbus_message_get_member(message);
  if (!call) {  // The connection has ended, or there is no memory.
    isHung_ = false;
    return std::unexpected(
        Error{ErrorCode::kSystem, 0, fmt::format("systemd: {}: no connection", method)});
  }
  dbus_pending_call_block(call.get());
  UniqueDBusMessage answer(dbus_pending_call_steal_reply(call.get()));
  DBusErrorText error;
  if (answer && !dbus_set_error_from_message(error.get(), answer.get())) {
    isHung_ = false;
    return answer;
  }
  const bool isLate = (error.is(DBUS_ERROR_NO_REPLY) || error.is(DBUS_ERROR_TIMEOUT)) &&
                      monotonicNow() - start >= limit - kClockTolerance;
  isHung_ = isLate;
  if (isLate)
    return std::unexpected(
        Error{ErrorCode::kSystem, ETIMEDOUT, fmt::format("systemd: {}", method)});
  const ErrorCode code = isAway(error)           ? ErrorCode::kNotFound
                         : error.is(kUnitExists) ? ErrorCode::kExhausted
                                                 : ErrorCode::kSystem;
  return std::unexpected(Error{code, 0, fmt::format("systemd: {}: {}", method, error.text())});
}

Result<UniqueDBusMessage> SystemdBus::call(const std::string& path, const char* interface,
                                           const char* method, const AppendArguments& append) {
  auto answers = callEach(path, interface, method, {append});
  if (!answers) return std::unexpected(std::move(answers.error()));
  return std::move(answers->front());
}

// If systemd is away, it is waited for.
Result<std::vector<UniqueDBusMessage>> SystemdBus::callEach(
    const std::string& path, const char* interface, const char* method,
    const std::vector<AppendArguments>& arguments) {
  const Instant deadline =
      monotonicNow() + (isHung_ ? SystemdManager::kSilentTimeOut : SystemdManager::kTimeOut);
  for (;;) {
    if (auto connected = connect(); !connected)
      return std::unexpected(std::move(connected.error()));
    std::vector<UniqueDBusMessage> messages;
    for (const AppendArguments& append : arguments) {
      messages.emplace_back(
          dbus_message_new_method_call(kSystemdName, path.c_str(), interface, method));
      if (!messages.back() || !appendAll(messages.back().get(), append)) {
        return std::unexpected(
            Error{ErrorCode::kExhausted, 0, fmt::format("systemd: {}: the message", method)});
      }
    }
    auto answers = callOnce(
        messages, std::max(deadline - monotonicNow(), Duration(SystemdManager::kReturnInterval)));
    if (answers || answers.error().code != ErrorCode::kNotFound || monotonicNow() >= deadline)
      return answers;
    std::this_thread::sleep_for(SystemdManager::kReturnInterval);
  }
}

void SystemdBus::sendTo(const char* destination, const char* path, const char* interface,
                        const char* method, const AppendArguments& append) {
  if (!isConnected()) return;
  const UniqueDBusMessage message(
      dbus_message_new_method_call(destination, path, interface, method));
  if (!message || !appendAll(message.get(), append)) return;
  dbus_message_set_no_reply(message.get(), 1);
  dbus_connection_send(connection_.get(), message.get(), nullptr);
}

void SystemdBus::send(const char* method, const AppendArguments& append) {
  sendTo(kSystemdName, kSystemdPath, kSystemdInterface, method, append);
}

void SystemdBus::listen(const std::string& rule) {
  sendTo(kBusName, kBusObject, kBusName, "AddMatch", appendingTexts({rule}));
}

void SystemdBus::subscribe(const std::string& rule) {
  listen(rule);
  // A systemd that was restarted has forgotten its subscribers, and then sends no signals.
  send("Subscribe", {});
}

void SystemdBus::stopListening(const std::string& rule) {
  sendTo(kBusName, kBusObject, kBusName, "RemoveMatch", appendingTexts({rule}));
}

void SystemdBus::unsubscribe(const std::string& rule) {
  stopListening(rule);
  send("Unsubscribe", {});
}

UniqueDBusMessage SystemdBus::nextMessage(Instant deadline, int otherDescriptor) {
  while (connection_ && monotonicNow() < deadline) {
    if (UniqueDBusMessage message{dbus_connection_pop_message(connection_.get())}) {
      if (!isDisconnected(message.get())) return message;
      connection_.reset();
      return nullptr;
    }
    int descriptor = -1;
    if (!dbus_connection_get_unix_fd(connection_.get(), &descriptor)) return nullptr;
    pollfd entries[] = {{descriptor, POLLIN, 0}, {otherDescriptor, POLLIN, 0}};
    const int ready = retryOnInterrupt(
        [&] { return ::poll(entries, 2, millisecondsOf(deadline - monotonicNow())); });
    if (ready <= 0 || entries[1].revents != 0) return nullptr;
    dbus_connection_read_write(connection_.get(), 0);
  }
  return nullptr;
}

}  // namespace platform
