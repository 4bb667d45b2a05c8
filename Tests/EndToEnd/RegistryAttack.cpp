#include "Tests/EndToEnd/RegistryAttack.h"

#include <chrono>
#include <cstdint>
#include <utility>

#include <sys/socket.h>

#include "Platform/Linux/DBus/DBusConnecting.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

bool isYes(const MessageResult& answer) {
  const Array* values = answer ? answer->array() : nullptr;
  return values != nullptr && !values->empty() && values->front() == Value(true);
}

}  // namespace

bool RegistryAttack::isServed(DBusPeerLink& link, const Data& token) const {
  if (kind == Kind::kLookUp)
    return link.call(RegistryClient::kLookUp, {Value(token), Value(name), {}}, 10s).has_value();
  const UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const Value endpoint = kind == Kind::kReplace ? RegistryClient::endpointOf(listener) : Value();
  return isYes(
      link.call(RegistryClient::kRegister, {endpoint, Value(token), Value(name), {}}, 10s));
}

bool isRegistered(int descriptor, const std::string& root, const Data& token) {
  auto socket = connectToSocket(pathOfMachService(root, kEndpointRegistryService), 5s);
  auto connection = socket ? openOverSocket(std::move(*socket)) : UniqueDBusConnection();
  if (!connection || !*connection) return false;
  // No descriptor can be passed before the connection is admitted, as the answer shows.
  const UniqueDBusMessage ping(
      dbus_message_new_method_call(nullptr, "/", DBUS_INTERFACE_PEER, "Ping"));
  const UniqueDBusMessage pong(
      dbus_connection_send_with_reply_and_block(connection->get(), ping.get(), 10'000, nullptr));
  const UniqueDBusMessage message(dbus_message_new_method_call(
      nullptr, "/", kPeerInterface, "registerXPCListenerEndpoint_forPasskey_withName_withReply_"));
  DBusMessageIter arguments;
  dbus_message_iter_init_append(message.get(), &arguments);
  const auto append = [&](int type, const char* signature, const void* value) {
    DBusMessageIter variant;
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, signature, &variant);
    dbus_message_iter_append_basic(&variant, type, value);
    dbus_message_iter_close_container(&arguments, &variant);
  };
  append(DBUS_TYPE_UNIX_FD, "h", &descriptor);
  DBusMessageIter variant;
  DBusMessageIter bytes;
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, "ay", &variant);
  dbus_message_iter_open_container(&variant, DBUS_TYPE_ARRAY, "y", &bytes);
  for (const std::uint8_t byte : token) {
    dbus_message_iter_append_basic(&bytes, DBUS_TYPE_BYTE, &byte);
  }
  dbus_message_iter_close_container(&variant, &bytes);
  dbus_message_iter_close_container(&arguments, &variant);
  const char* name = "attacker";
  append(DBUS_TYPE_STRING, "s", &name);
  const std::uint8_t nil = 0;
  append(DBUS_TYPE_BYTE, "y", &nil);
  DBusErrorText error;
  const UniqueDBusMessage reply(dbus_connection_send_with_reply_and_block(
      connection->get(), message.get(), 10'000, error.get()));
  return reply && isYes(decodeAnswer(reply.get()));
}

}  // namespace platform
