#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <dbus/dbus.h>

#include "Fuzz/Require.h"
#include "Platform/Linux/Peers/DBusMessages.h"

namespace {

using namespace platform;

// The bytes of a message; they distinguish values that `==` does not.
std::string bytesOf(DBusMessage* message) {
  dbus_message_set_serial(message, 1);
  char* bytes = nullptr;
  int size = 0;
  fuzz::require(dbus_message_marshal(message, &bytes, &size), "what was encoded can be written");
  std::string copy(bytes, static_cast<std::size_t>(size));
  dbus_free(bytes);
  return copy;
}

void checkMessage(DBusMessage* message) {
  using fuzz::require;
  const auto decoded = decodeMessage(message);
  if (!decoded) {
    require(!decoded.error().context.empty(), "the error says what is wrong");
    return;
  }
  const auto encoded =
      encodeMessage(decoded->selector, decoded->arguments, PeerMessageKind::kTwoWay);
  // The selector of a message may exist in none of our programs.
  if (!encoded || encoded->fileBytes > 0) return;
  const auto again = decodeMessage(encoded->message.get());
  require(again && again->selector == decoded->selector, "what was encoded can be decoded");
  const auto encodedAgain =
      encodeMessage(again->selector, again->arguments, PeerMessageKind::kTwoWay);
  require(encodedAgain && bytesOf(encodedAgain->message.get()) == bytesOf(encoded->message.get()),
          "what was decoded is the same");
}

void checkAnswer(DBusMessage* message) {
  const MessageResult result = decodeAnswer(message);
  if (!result) {
    fuzz::require(!result.error().name.empty(), "an exception has a name");
    return;
  }
  fuzz::require(encodeAnswer(1, result).has_value(), "a result that was read can travel");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size > INT_MAX) return 0;
  DBusError error;
  dbus_error_init(&error);
  const UniqueDBusMessage message(
      dbus_message_demarshal(reinterpret_cast<const char*>(bytes), static_cast<int>(size), &error));
  dbus_error_free(&error);
  if (!message) return 0;
  const int type = dbus_message_get_type(message.get());
  if (type == DBUS_MESSAGE_TYPE_METHOD_CALL || type == DBUS_MESSAGE_TYPE_SIGNAL) {
    checkMessage(message.get());
  } else {
    checkAnswer(message.get());
  }
  return 0;
}
