#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/Systemd/UnitMessages.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// The clock of the waits for systemd.
Instant monotonicNow();
// Rounded up, and not negative.
int millisecondsOf(Duration duration);

// The connection to systemd's manager over the bus of the system. SystemdManager.h says how it
// waits.
class SystemdBus {
 public:
  explicit SystemdBus(std::string socket) : socket_(std::move(socket)) {}

  // Connects if there is no connection.
  Result<void> connect();
  bool isConnected() const {
    return connection_ && dbus_connection_get_is_connected(connection_.get()) != 0;
  }
  // Whether the last call had no answer.
  bool isHung() const { return isHung_; }

  // Calls systemd. Its errors are kSystem; kNotFound means that it is away, and kExhausted that a
  // unit of the name exists.
  Result<UniqueDBusMessage> call(const std::string& path, const char* interface, const char* method,
                                 const AppendArguments& append);
  // The same call with several arguments: all are sent before the first answer is awaited, so
  // systemd is waited for once. There are as many answers as arguments.
  Result<std::vector<UniqueDBusMessage>> callEach(const std::string& path, const char* interface,
                                                  const char* method,
                                                  const std::vector<AppendArguments>& arguments);
  // Calls a method of systemd's manager, and waits for no answer. Does nothing without a
  // connection.
  void send(const char* method, const AppendArguments& append);

  // From now on the connection receives the signals that the rule describes, or no more. The bus
  // handles it before the calls that follow. systemd itself always sends the signals of the jobs
  // that this connection has asked for.
  void listen(const std::string& rule);
  void stopListening(const std::string& rule);
  // The same for signals about units. systemd then sends the signals of all units to the bus, which
  // costs much CPU time while many start and end: subscribe for a wait only.
  void subscribe(const std::string& rule);
  void unsubscribe(const std::string& rule);

  // Waits for a signal. Null at the deadline, when the other descriptor is readable, and without a
  // connection.
  UniqueDBusMessage nextMessage(Instant deadline, int otherDescriptor = -1);

 private:
  Result<std::vector<UniqueDBusMessage>> callOnce(const std::vector<UniqueDBusMessage>& messages,
                                                  Duration limit);
  Result<UniqueDBusMessage> answerTo(DBusMessage* message, UniqueDBusPendingCall call,
                                     Instant start, Duration limit);
  void sendTo(const char* destination, const char* path, const char* interface, const char* method,
              const AppendArguments& append);

  const std::string socket_;
  UniqueDBusConnection connection_;
  bool isHung_ = false;
};

}  // namespace platform
