#pragma once

#include <memory>
#include <utility>

#include <dbus/dbus.h>

namespace platform {

struct DBusMessageRelease {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using UniqueDBusMessage = std::unique_ptr<DBusMessage, DBusMessageRelease>;

// Closes a private connection before it drops the last reference; otherwise libdbus aborts.
struct DBusConnectionClose {
  void operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }
};
using UniqueDBusConnection = std::unique_ptr<DBusConnection, DBusConnectionClose>;

struct DBusServerClose {
  void operator()(DBusServer* server) const {
    dbus_server_disconnect(server);
    dbus_server_unref(server);
  }
};
using UniqueDBusServer = std::unique_ptr<DBusServer, DBusServerClose>;

// Cancels the call, if it has no answer yet.
struct DBusPendingCallCancel {
  void operator()(DBusPendingCall* call) const {
    dbus_pending_call_cancel(call);
    dbus_pending_call_unref(call);
  }
};
using UniqueDBusPendingCall = std::unique_ptr<DBusPendingCall, DBusPendingCallCancel>;

class DBusErrorText {
 public:
  DBusErrorText() { dbus_error_init(&error_); }
  DBusErrorText(const DBusErrorText&) = delete;
  DBusErrorText& operator=(const DBusErrorText&) = delete;
  ~DBusErrorText() { dbus_error_free(&error_); }

  DBusError* get() { return &error_; }
  const char* text() const { return error_.message != nullptr ? error_.message : "no reason"; }
  bool is(const char* name) const { return dbus_error_has_name(&error_, name) != 0; }

 private:
  DBusError error_;
};

}  // namespace platform
