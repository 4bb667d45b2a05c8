#include "Platform/Linux/Systemd/UnitMessages.h"

#include <string_view>
#include <utility>

namespace platform {
namespace {

bool appendText(DBusMessageIter& into, const std::string& text) {
  const char* bytes = text.c_str();
  return dbus_message_iter_append_basic(&into, DBUS_TYPE_STRING, &bytes);
}

// Opens a container, fills it and closes it.
template <class Fill>
bool within(DBusMessageIter& into, int type, const char* signature, Fill fill) {
  DBusMessageIter inside;
  return dbus_message_iter_open_container(&into, type, signature, &inside) && fill(inside) &&
         dbus_message_iter_close_container(&into, &inside);
}

bool appendTexts(DBusMessageIter& into, const std::vector<std::string>& texts) {
  return within(into, DBUS_TYPE_ARRAY, "s", [&](DBusMessageIter& array) {
    for (const std::string& text : texts) {
      if (!appendText(array, text)) return false;
    }
    return true;
  });
}

struct ValueAppender {
  DBusMessageIter& into;

  template <class Fill>
  bool variant(const char* signature, Fill fill) const {
    return within(into, DBUS_TYPE_VARIANT, signature, fill);
  }
  bool basic(const char* signature, const void* value) const {
    return variant(signature, [&](DBusMessageIter& inside) {
      return dbus_message_iter_append_basic(&inside, *signature, value);
    });
  }

  bool operator()(const std::string& text) const {
    return variant("s", [&](DBusMessageIter& inside) { return appendText(inside, text); });
  }
  bool operator()(bool value) const {
    const dbus_bool_t wide = value;
    return basic("b", &wide);
  }
  bool operator()(std::int32_t value) const { return basic("i", &value); }
  bool operator()(std::uint32_t value) const { return basic("u", &value); }
  bool operator()(std::uint64_t value) const { return basic("t", &value); }
  bool operator()(const std::vector<std::string>& texts) const {
    return variant("as", [&](DBusMessageIter& inside) { return appendTexts(inside, texts); });
  }
  bool operator()(const std::vector<std::uint32_t>& numbers) const {
    return variant("au", [&](DBusMessageIter& inside) {
      return within(inside, DBUS_TYPE_ARRAY, "u", [&](DBusMessageIter& array) {
        for (const std::uint32_t number : numbers) {
          if (!dbus_message_iter_append_basic(&array, DBUS_TYPE_UINT32, &number)) return false;
        }
        return true;
      });
    });
  }
  bool operator()(const UnitDescriptor& file) const { return basic("h", &file.descriptor); }
  bool operator()(const UnitCommand& command) const {
    return variant("a(sasb)", [&](DBusMessageIter& inside) {
      return within(inside, DBUS_TYPE_ARRAY, "(sasb)", [&](DBusMessageIter& array) {
        return within(array, DBUS_TYPE_STRUCT, nullptr, [&](DBusMessageIter& entry) {
          const dbus_bool_t mayFail = 0;
          return appendText(entry, command.path) && appendTexts(entry, command.arguments) &&
                 dbus_message_iter_append_basic(&entry, DBUS_TYPE_BOOLEAN, &mayFail);
        });
      });
    });
  }
};

std::string argument(DBusMessage* message, int index) {
  DBusMessageIter arguments;
  if (!dbus_message_iter_init(message, &arguments)) return {};
  for (; index > 0; --index) dbus_message_iter_next(&arguments);
  if (dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_STRING) return {};
  const char* text = "";
  dbus_message_iter_get_basic(&arguments, &text);
  return text;
}

// The value in a variant.
bool openVariant(DBusMessage* answer, DBusMessageIter& value) {
  DBusMessageIter arguments;
  if (!dbus_message_iter_init(answer, &arguments)) return false;
  if (dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_VARIANT) return false;
  dbus_message_iter_recurse(&arguments, &value);
  return true;
}

}  // namespace

bool appendAll(DBusMessage* message, const AppendArguments& append) {
  DBusMessageIter arguments;
  dbus_message_iter_init_append(message, &arguments);
  return !append || append(arguments);
}

AppendArguments appendingTexts(std::vector<std::string> texts) {
  return [texts = std::move(texts)](DBusMessageIter& into) {
    for (const std::string& text : texts) {
      if (!appendText(into, text)) return false;
    }
    return true;
  };
}

bool appendTransientUnit(DBusMessageIter& into, const std::string& unit,
                         const std::vector<UnitProperty>& properties) {
  const auto fill = [&](DBusMessageIter& array) {
    for (const UnitProperty& property : properties) {
      const bool isAppended = within(array, DBUS_TYPE_STRUCT, nullptr, [&](DBusMessageIter& entry) {
        return appendText(entry, property.name) && std::visit(ValueAppender{entry}, property.value);
      });
      if (!isAppended) return false;
    }
    return true;
  };
  return appendText(into, unit) && appendText(into, "fail") &&
         within(into, DBUS_TYPE_ARRAY, "(sv)", fill) &&
         within(into, DBUS_TYPE_ARRAY, "(sa(sv))", [](DBusMessageIter&) { return true; });
}

std::optional<std::uint64_t> numberIn(DBusMessage* answer) {
  DBusMessageIter value;
  if (!openVariant(answer, value)) return std::nullopt;
  DBusBasicValue basic{};
  switch (dbus_message_iter_get_arg_type(&value)) {
    case DBUS_TYPE_BOOLEAN:
      dbus_message_iter_get_basic(&value, &basic);
      return basic.bool_val;
    case DBUS_TYPE_INT32:
      dbus_message_iter_get_basic(&value, &basic);
      return static_cast<std::uint64_t>(basic.i32);
    case DBUS_TYPE_UINT32:
      dbus_message_iter_get_basic(&value, &basic);
      return basic.u32;
    case DBUS_TYPE_UINT64:
      dbus_message_iter_get_basic(&value, &basic);
      return basic.u64;
    default:
      return std::nullopt;
  }
}

std::string textIn(DBusMessage* answer) {
  DBusMessageIter value;
  if (!openVariant(answer, value) || dbus_message_iter_get_arg_type(&value) != DBUS_TYPE_STRING)
    return {};
  const char* text = "";
  dbus_message_iter_get_basic(&value, &text);
  return text;
}

bool isFailedJob(DBusMessage* signal, const std::string& unit) {
  return dbus_message_is_signal(signal, kSystemdInterface, "JobRemoved") &&
         argument(signal, 2) == unit && argument(signal, 3) != "done";
}

}  // namespace platform
