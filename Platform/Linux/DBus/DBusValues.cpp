#include "Platform/Linux/DBus/DBusValues.h"

#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "Platform/Linux/Sockets/SocketEndpoint.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {

namespace {

constexpr unsigned char kNilMark = 0;
constexpr unsigned char kNullMark = 1;

const char* signatureOf(const Value& value) {
  switch (value.type()) {
    case Value::Type::kBoolean:
      return "b";
    case Value::Type::kInteger:
      return "x";
    case Value::Type::kReal:
      return "d";
    case Value::Type::kString:
      return "s";
    case Value::Type::kData:
      return "ay";
    case Value::Type::kDate:
      return "(d)";
    case Value::Type::kArray:
      return "av";
    case Value::Type::kDictionary:
      return "a{sv}";
    case Value::Type::kRemoteObject:  // The rules have refused all objects but endpoints.
      return "h";
    case Value::Type::kNil:
    case Value::Type::kNullMarker:
      break;
  }
  return "(y)";
}

// Closes the container, or abandons it if `fill` failed.
template <typename Fill>
bool inContainer(DBusMessageIter* into, int type, const char* signature, Fill fill) {
  DBusMessageIter inner;
  if (!dbus_message_iter_open_container(into, type, signature, &inner)) return false;
  if (fill(&inner)) return dbus_message_iter_close_container(into, &inner);
  dbus_message_iter_abandon_container(into, &inner);
  return false;
}

bool appendData(DBusMessageIter* into, const Data& data) {
  return inContainer(into, DBUS_TYPE_ARRAY, "y", [&](DBusMessageIter* array) {
    const std::uint8_t* bytes = data.data();
    return data.empty() || dbus_message_iter_append_fixed_array(array, DBUS_TYPE_BYTE, &bytes,
                                                                static_cast<int>(data.size()));
  });
}

bool appendArray(DBusMessageIter* into, const Array& elements) {
  return inContainer(into, DBUS_TYPE_ARRAY, "v", [&](DBusMessageIter* array) {
    for (const Value& element : elements) {
      if (!appendVariant(array, element)) return false;
    }
    return true;
  });
}

bool appendDictionary(DBusMessageIter* into, const Dictionary& entries) {
  return inContainer(into, DBUS_TYPE_ARRAY, "{sv}", [&](DBusMessageIter* array) {
    for (const Dictionary::Entry& entry : entries) {
      const bool appended =
          inContainer(array, DBUS_TYPE_DICT_ENTRY, nullptr, [&](DBusMessageIter* pair) {
            const char* key = entry.first.c_str();
            return dbus_message_iter_append_basic(pair, DBUS_TYPE_STRING, &key) &&
                   appendVariant(pair, entry.second);
          });
      if (!appended) return false;
    }
    return true;
  });
}

bool appendInStruct(DBusMessageIter* into, int type, const void* content) {
  return inContainer(into, DBUS_TYPE_STRUCT, nullptr, [&](DBusMessageIter* only) {
    return dbus_message_iter_append_basic(only, type, content);
  });
}

bool appendEndpoint(DBusMessageIter* into, const Value& value) {
  const auto endpoint = std::dynamic_pointer_cast<const SocketEndpoint>(value.remoteObject());
  if (!endpoint) return false;
  const int descriptor = endpoint->descriptor();
  return dbus_message_iter_append_basic(into, DBUS_TYPE_UNIX_FD, &descriptor);
}

bool appendContent(DBusMessageIter* into, const Value& value) {
  switch (value.type()) {
    case Value::Type::kBoolean: {
      const dbus_bool_t boolean = *value.boolean();
      return dbus_message_iter_append_basic(into, DBUS_TYPE_BOOLEAN, &boolean);
    }
    case Value::Type::kInteger: {
      const dbus_int64_t integer = *value.integer();
      return dbus_message_iter_append_basic(into, DBUS_TYPE_INT64, &integer);
    }
    case Value::Type::kReal: {
      const double real = *value.real();
      return dbus_message_iter_append_basic(into, DBUS_TYPE_DOUBLE, &real);
    }
    case Value::Type::kString: {
      const char* text = value.string()->c_str();
      return dbus_message_iter_append_basic(into, DBUS_TYPE_STRING, &text);
    }
    case Value::Type::kData:
      return appendData(into, *value.data());
    case Value::Type::kDate:
      return appendInStruct(into, DBUS_TYPE_DOUBLE, &value.date()->secondsSinceReferenceDate);
    case Value::Type::kArray:
      return appendArray(into, *value.array());
    case Value::Type::kDictionary:
      return appendDictionary(into, *value.dictionary());
    case Value::Type::kNullMarker:
      return appendInStruct(into, DBUS_TYPE_BYTE, &kNullMark);
    case Value::Type::kRemoteObject:
      return appendEndpoint(into, value);
    case Value::Type::kNil:
      break;
  }
  return appendInStruct(into, DBUS_TYPE_BYTE, &kNilMark);
}

template <typename T>
T basic(DBusMessageIter* from) {
  T content{};
  dbus_message_iter_get_basic(from, &content);
  return content;
}

}  // namespace

bool appendVariant(DBusMessageIter* into, const Value& value) {
  return inContainer(into, DBUS_TYPE_VARIANT, signatureOf(value),
                     [&](DBusMessageIter* variant) { return appendContent(variant, value); });
}

Result<Value> DBusValueReader::read(DBusMessageIter* from) {
  int type = dbus_message_iter_get_arg_type(from);
  DBusMessageIter variant;
  // libdbus refuses messages in which variants nest more than 64 deep.
  while (type == DBUS_TYPE_VARIANT) {
    DBusMessageIter content;
    dbus_message_iter_recurse(from, &content);
    variant = content;
    from = &variant;
    type = dbus_message_iter_get_arg_type(from);
  }
  if (++nodes_ > kMaxPeerNodes) {
    return invalid("more than " + std::to_string(kMaxPeerNodes) + " values");
  }
  switch (type) {
    case DBUS_TYPE_ARRAY:
      return readArray(from);
    case DBUS_TYPE_STRUCT:
      return readStruct(from);
    case DBUS_TYPE_UNIX_FD:
      if (contents_ == PeerMessageContents::kValuesAndEndpoints) return readEndpoint(from);
      [[fallthrough]];
    default:
      return readScalar(from, type);
  }
}

Result<Value> DBusValueReader::readScalar(DBusMessageIter* from, int type) {
  switch (type) {
    case DBUS_TYPE_BOOLEAN:
      return Value(basic<dbus_bool_t>(from) != 0);
    case DBUS_TYPE_BYTE:
      return Value(basic<std::uint8_t>(from));
    case DBUS_TYPE_INT16:
      return Value(basic<dbus_int16_t>(from));
    case DBUS_TYPE_UINT16:
      return Value(basic<dbus_uint16_t>(from));
    case DBUS_TYPE_INT32:
      return Value(basic<dbus_int32_t>(from));
    case DBUS_TYPE_UINT32:
      return Value(basic<dbus_uint32_t>(from));
    case DBUS_TYPE_INT64:
      return Value(static_cast<std::int64_t>(basic<dbus_int64_t>(from)));
    case DBUS_TYPE_UINT64: {
      const std::uint64_t number = basic<dbus_uint64_t>(from);
      if (number > std::numeric_limits<std::int64_t>::max()) return invalid("an integer too large");
      return Value(static_cast<std::int64_t>(number));
    }
    case DBUS_TYPE_DOUBLE:
      return Value(basic<double>(from));
    case DBUS_TYPE_STRING:
    case DBUS_TYPE_OBJECT_PATH:
    case DBUS_TYPE_SIGNATURE:
      return Value(basic<const char*>(from));
    default:
      return invalid("a descriptor where a value is expected");
  }
}

Result<Value> DBusValueReader::readEndpoint(DBusMessageIter* from) {
  UniqueFd descriptor(basic<int>(from));  // libdbus has duplicated it for us.
  if (!descriptor) return invalid("a descriptor that can't be had");
  auto endpoint = SocketEndpoint::of(std::move(descriptor));
  if (!endpoint) return std::unexpected(std::move(endpoint.error()));
  return Value(std::shared_ptr<const RemoteObject>(std::move(*endpoint)));
}

Result<Value> DBusValueReader::readArray(DBusMessageIter* from) {
  if (depth_ == kMaxPeerDepth) {
    return invalid("arrays and dictionaries more than " + std::to_string(kMaxPeerDepth) + " deep");
  }
  DBusMessageIter inner;
  dbus_message_iter_recurse(from, &inner);
  const int elementType = dbus_message_iter_get_element_type(from);
  if (elementType == DBUS_TYPE_BYTE) {
    const std::uint8_t* bytes = nullptr;
    int count = 0;
    dbus_message_iter_get_fixed_array(&inner, &bytes, &count);
    return Value(count == 0 ? Data() : Data(bytes, bytes + count));
  }
  ++depth_;
  auto value = elementType == DBUS_TYPE_DICT_ENTRY ? readEntries(&inner) : readElements(&inner);
  --depth_;
  return value;
}

Result<Value> DBusValueReader::readElements(DBusMessageIter* elements) {
  Array array;
  for (; dbus_message_iter_get_arg_type(elements) != DBUS_TYPE_INVALID;
       dbus_message_iter_next(elements)) {
    auto element = read(elements);
    if (!element) return element;
    array.push_back(std::move(*element));
  }
  return Value(std::move(array));
}

Result<Value> DBusValueReader::readEntries(DBusMessageIter* entries) {
  Dictionary dictionary;
  for (; dbus_message_iter_get_arg_type(entries) != DBUS_TYPE_INVALID;
       dbus_message_iter_next(entries)) {
    DBusMessageIter pair;
    dbus_message_iter_recurse(entries, &pair);
    const int keyType = dbus_message_iter_get_arg_type(&pair);
    if (keyType != DBUS_TYPE_STRING && keyType != DBUS_TYPE_OBJECT_PATH &&
        keyType != DBUS_TYPE_SIGNATURE) {
      return invalid("a dictionary with a key that is no string");
    }
    ++nodes_;
    const std::string key = basic<const char*>(&pair);
    if (dictionary.contains(key)) return invalid("a dictionary with the key \"" + key + "\" twice");
    dbus_message_iter_next(&pair);
    auto value = read(&pair);
    if (!value) return value;
    dictionary.set(key, std::move(*value));
  }
  return Value(std::move(dictionary));
}

// Reads dates, nil and the null marker, for which D-Bus has no types.
Result<Value> DBusValueReader::readStruct(DBusMessageIter* from) {
  DBusMessageIter member;
  dbus_message_iter_recurse(from, &member);
  if (!dbus_message_iter_has_next(&member)) {
    switch (dbus_message_iter_get_arg_type(&member)) {
      case DBUS_TYPE_DOUBLE:
        return Value(Date{basic<double>(&member)});
      case DBUS_TYPE_BYTE: {
        const auto mark = basic<unsigned char>(&member);
        if (mark == kNilMark) return Value();
        if (mark == kNullMark) return Value::nullMarker();
        break;
      }
      default:
        break;
    }
  }
  return invalid("a structure where a value is expected");
}

}  // namespace platform
