#include "Platform/Linux/Notifications/NotificationMessages.h"

#include <utility>

#include "Platform/Linux/DBus/DBusValues.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Notifications/DistributedObservers.h"
#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

constexpr char kPath[] = "/com/vantor/DistributedNotification";
constexpr char kInterface[] = "com.vantor.DistributedNotification";
constexpr char kMember[] = "Posted";

std::unexpected<Error> encodingFailed(ErrorCode code, std::string what) {
  return std::unexpected(Error{code, 0, std::move(what)});
}

std::string quotedForMatchRule(std::string_view text) {
  std::string result = "'";
  for (const char character : text) {
    if (character == '\'') {
      result += "'\\''";  // Ends the quoting, adds an apostrophe, begins it again.
    } else {
      result += character;
    }
  }
  return result + "'";
}

bool appendObject(DBusMessageIter* into, const std::optional<std::string>& object) {
  DBusMessageIter array;
  if (!dbus_message_iter_open_container(into, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &array))
    return false;
  if (object) {
    const char* text = object->c_str();
    if (!dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &text)) {
      dbus_message_iter_abandon_container(into, &array);
      return false;
    }
  }
  return dbus_message_iter_close_container(into, &array);
}

std::optional<std::string> readText(DBusMessageIter* from) {
  if (dbus_message_iter_get_arg_type(from) != DBUS_TYPE_STRING) return std::nullopt;
  const char* text = nullptr;
  dbus_message_iter_get_basic(from, &text);
  return text;
}

}  // namespace

std::string matchRuleFor(const std::optional<std::string>& name) {
  const std::string all = stringWithFormat("type='signal',interface='%s',member='%s',path='%s'",
                                           kInterface, kMember, kPath);
  if (!name || name->find('\0') != std::string::npos || !dbus_validate_utf8(name->c_str(), nullptr))
    return all;
  std::string rule = all + ",arg0=" + quotedForMatchRule(*name);
  return rule.size() <= kMaxMatchRuleBytes ? rule : all;
}

Result<UniqueDBusMessage> encodeNotification(const DistributedNotification& notification) {
  if (auto possible = checkDistributedNotification(notification); !possible)
    return std::unexpected(std::move(possible.error()));
  // Checked as one message, since libdbus aborts on ill-formed texts and values.
  Array parts{notification.name};
  if (notification.object) parts.emplace_back(*notification.object);
  if (!notification.userInfo.isNil()) parts.push_back(notification.userInfo);
  const auto size = peerBodyBytes(parts);
  if (!size) return std::unexpected(size.error());
  if (*size > kMaxNotificationBytes)
    return encodingFailed(ErrorCode::kExhausted, stringWithFormat("it has %lu bytes, more than %lu",
                                                                  *size, kMaxNotificationBytes));

  UniqueDBusMessage message(dbus_message_new_signal(kPath, kInterface, kMember));
  if (!message) return encodingFailed(ErrorCode::kExhausted, "there is no memory");
  DBusMessageIter arguments;
  dbus_message_iter_init_append(message.get(), &arguments);
  const char* name = notification.name.c_str();
  if (!dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &name) ||
      !appendObject(&arguments, notification.object) ||
      (!notification.userInfo.isNil() && !appendVariant(&arguments, notification.userInfo)))
    return encodingFailed(ErrorCode::kExhausted, "there is no memory");
  return message;
}

std::optional<DistributedNotification> decodeNotification(DBusMessage& signal) {
  DBusMessageIter arguments;
  if (!dbus_message_is_signal(&signal, kInterface, kMember) ||
      !dbus_message_iter_init(&signal, &arguments))
    return std::nullopt;
  auto name = readText(&arguments);
  if (!name || !dbus_message_iter_next(&arguments) ||
      dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_ARRAY ||
      dbus_message_iter_get_element_type(&arguments) != DBUS_TYPE_STRING)
    return std::nullopt;
  DBusMessageIter objects;
  dbus_message_iter_recurse(&arguments, &objects);
  DistributedNotification notification{*std::move(name), readText(&objects)};
  if (dbus_message_iter_next(&arguments)) {
    auto userInfo = DBusValueReader().read(&arguments);
    if (!userInfo || userInfo->dictionary() == nullptr) return std::nullopt;
    notification.userInfo = *std::move(userInfo);
  }
  return notification;
}

}  // namespace platform
