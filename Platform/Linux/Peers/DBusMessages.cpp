#include "Platform/Linux/Peers/DBusMessages.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "Platform/Linux/DBus/DBusValues.h"
#include "Platform/Linux/Peers/SealedFile.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"

namespace platform {

namespace {

constexpr char kExceptionPrefix[] = "com.vantor.exception";
constexpr char kMemoryFileSignature[] = "ht";

std::unexpected<Error> noMemory() {
  return std::unexpected(Error{ErrorCode::kExhausted, 0, "no memory for a D-Bus message"});
}

std::unexpected<NSException> unreadable(const Error& error) {
  return raised(kNSInvalidArgumentException, "An answer that can't be read: " + describe(error));
}

struct FreeString {
  void operator()(char* text) const { dbus_free(text); }
};

// Counts the endpoints that `contents` have brought into a message.
Result<EncodedMessage> counted(Result<EncodedMessage> encoded, const Array& contents) {
  const bool isCounted = !encoded || encoded->descriptors > 0;
  if (isCounted || !dbus_message_contains_unix_fds(encoded->message.get())) return encoded;
  for (const Value& value : contents) encoded->descriptors += endpointsIn(value);
  return encoded;
}

// Fills a message made by `make`, and moves it into a memory file where it is too large to go as it
// is; `make` then makes the one that carries it.
template <typename Make, typename Fill>
Result<EncodedMessage> encode(std::size_t bodyBytes, Make make, Fill fill) {
  UniqueDBusMessage message = make();
  if (!message) return noMemory();
  DBusMessageIter iterator;
  dbus_message_iter_init_append(message.get(), &iterator);
  if (!fill(&iterator)) return noMemory();
  if (bodyBytes + kPeerMessageHeaderBytes <= kMaxPeerMessageBytes) {
    return EncodedMessage{std::move(message), bodyBytes + kPeerMessageHeaderBytes, 0, 0};
  }
  if (dbus_message_contains_unix_fds(message.get())) {
    return invalid("endpoints in a message of more than " + std::to_string(kMaxPeerMessageBytes) +
                   " bytes");
  }
  dbus_message_set_serial(message.get(), 1);  // libdbus reads no message without one.
  char* marshalled = nullptr;
  int size = 0;
  if (!dbus_message_marshal(message.get(), &marshalled, &size)) return noMemory();
  const std::unique_ptr<char, FreeString> owned(marshalled);
  auto file = makeSealedFile({marshalled, static_cast<std::size_t>(size)});
  if (!file) return std::unexpected(std::move(file.error()));
  const int descriptor = file->get();
  const auto length = static_cast<dbus_uint64_t>(size);
  UniqueDBusMessage carrier = make();
  if (!carrier || !dbus_message_append_args(carrier.get(), DBUS_TYPE_UNIX_FD, &descriptor,
                                            DBUS_TYPE_UINT64, &length, DBUS_TYPE_INVALID)) {
    return noMemory();
  }
  return EncodedMessage{std::move(carrier), kPeerMessageHeaderBytes, static_cast<std::size_t>(size),
                        1};
}

UniqueDBusMessage newCall(const std::string& member, PeerMessageKind kind) {
  UniqueDBusMessage message(
      dbus_message_new_method_call(nullptr, "/", kPeerInterface, member.c_str()));
  if (message) dbus_message_set_no_reply(message.get(), kind == PeerMessageKind::kOneWay);
  return message;
}

UniqueDBusMessage newReturn(std::uint32_t serial) {
  UniqueDBusMessage message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
  if (message && !dbus_message_set_reply_serial(message.get(), serial)) return nullptr;
  if (message) dbus_message_set_no_reply(message.get(), true);
  return message;
}

UniqueDBusMessage newError(std::uint32_t serial, const std::string& name) {
  UniqueDBusMessage message(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
  if (!message || !dbus_message_set_reply_serial(message.get(), serial) ||
      !dbus_message_set_error_name(message.get(), name.c_str())) {
    return nullptr;
  }
  dbus_message_set_no_reply(message.get(), true);
  return message;
}

std::string errorNameOf(const std::string& exceptionName) {
  std::string name = kExceptionPrefix + ("." + exceptionName);
  return dbus_validate_error_name(name.c_str(), nullptr) ? name : kExceptionPrefix;
}

Result<EncodedMessage> encodeValue(std::uint32_t serial, const Value& value,
                                   PeerMessageContents contents) {
  const Array body = value.isNil() ? Array{} : Array{value};
  const auto bytes = peerBodyBytes(body, contents);
  if (!bytes) return std::unexpected(bytes.error());
  return counted(
      encode(
          *bytes, [&] { return newReturn(serial); },
          [&](DBusMessageIter* into) { return body.empty() || appendVariant(into, value); }),
      body);
}

Result<EncodedMessage> encodeException(std::uint32_t serial, const NSException& exception) {
  const auto bytes = peerBodyBytes(exception);
  if (!bytes) return std::unexpected(bytes.error());
  const std::string errorName = errorNameOf(exception.name);
  return encode(
      *bytes, [&] { return newError(serial, errorName); },
      [&](DBusMessageIter* into) {
        const char* reason = exception.reason.c_str();
        const char* name = exception.name.c_str();
        return dbus_message_iter_append_basic(into, DBUS_TYPE_STRING, &reason) &&
               dbus_message_iter_append_basic(into, DBUS_TYPE_STRING, &name) &&
               appendVariant(into, exception.userInfo);
      });
}

// A message's body, taken from its memory file where it has one.
class Body {
 public:
  static Result<Body> of(DBusMessage* message, std::size_t fileLimit) {
    if (!dbus_message_has_signature(message, kMemoryFileSignature)) return Body(message, nullptr);
    int descriptor = -1;
    dbus_uint64_t size = 0;
    if (!dbus_message_get_args(message, nullptr, DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_UINT64,
                               &size, DBUS_TYPE_INVALID)) {
      return invalid("a memory file without a descriptor");
    }
    const UniqueFd file(descriptor);
    const auto content = readSealedFile(file.get(), fileLimit);
    if (!content) return std::unexpected(content.error());
    if (content->size() != size) return invalid("a memory file of another size than said");
    DBusErrorText error;
    UniqueDBusMessage inner(
        dbus_message_demarshal(content->data(), static_cast<int>(content->size()), error.get()));
    if (!inner) return invalid(std::string("a memory file without a message: ") + error.text());
    DBusMessage* body = inner.get();
    return Body(body, std::move(inner));
  }

  DBusMessage* get() const { return message_; }

 private:
  Body(DBusMessage* message, UniqueDBusMessage inner)
      : message_(message), inner_(std::move(inner)) {}

  DBusMessage* message_;
  UniqueDBusMessage inner_;
};

Result<Array> readValues(DBusMessage* message, PeerMessageContents contents,
                         std::size_t fileLimit) {
  auto body = Body::of(message, fileLimit);
  if (!body) return std::unexpected(std::move(body.error()));
  Array values;
  DBusMessageIter iterator;
  if (!dbus_message_iter_init(body->get(), &iterator)) return values;
  DBusValueReader reader(contents);
  do {
    if (values.size() == kMaxPeerArguments) {
      return invalid("more than " + std::to_string(kMaxPeerArguments) + " arguments");
    }
    auto value = reader.read(&iterator);
    if (!value) {
      value.error().context.insert(0, "value " + std::to_string(values.size() + 1) + ": ");
      return std::unexpected(std::move(value.error()));
    }
    values.push_back(std::move(*value));
  } while (dbus_message_iter_next(&iterator));
  return values;
}

NSException exceptionOf(DBusMessage* message, const Array& values) {
  const auto text = [&](std::size_t index) {
    const std::string* held = index < values.size() ? values[index].string() : nullptr;
    return held != nullptr ? *held : std::string();
  };
  const std::string_view errorName = dbus_message_get_error_name(message);
  NSException exception{std::string(errorName), text(0), {}};
  const bool isOurs = errorName.starts_with(kExceptionPrefix) && values.size() == 3 &&
                      values[1].string() != nullptr;
  if (isOurs) {
    exception.name = text(1);
    exception.userInfo = values[2];
  }
  return exception;
}

}  // namespace

Result<EncodedMessage> encodeMessage(std::string_view selector, const Array& arguments,
                                     PeerMessageKind kind, PeerMessageContents contents) {
  if (auto checked = checkPeerSelector(selector, arguments.size()); !checked) {
    return std::unexpected(std::move(checked.error()));
  }
  const auto bytes = peerBodyBytes(arguments, contents);
  if (!bytes) {
    Error error = bytes.error();
    error.context.insert(0, "\"" + std::string(selector) + "\": ");
    return std::unexpected(std::move(error));
  }
  std::string member(selector);
  std::ranges::replace(member, ':', '_');
  return counted(encode(
                     *bytes, [&] { return newCall(member, kind); },
                     [&](DBusMessageIter* into) {
                       return std::ranges::all_of(arguments, [&](const Value& argument) {
                         return appendVariant(into, argument);
                       });
                     }),
                 arguments);
}

Result<EncodedMessage> encodeAnswer(std::uint32_t serial, const MessageResult& result,
                                    PeerMessageContents contents) {
  return result ? encodeValue(serial, *result, contents) : encodeException(serial, result.error());
}

bool wantsAnswer(DBusMessage* message) {
  return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
         !dbus_message_get_no_reply(message);
}

Result<PeerMessage> decodeMessage(DBusMessage* message, PeerMessageContents contents,
                                  std::size_t fileLimit) {
  const char* interface = dbus_message_get_interface(message);
  if (interface != nullptr && std::strcmp(interface, kPeerInterface) != 0) {
    return invalid("the interface " + std::string(interface) + " instead of " + kPeerInterface);
  }
  const char* member = dbus_message_get_member(message);
  if (member == nullptr) return invalid("a message without a member");
  PeerMessage decoded;
  decoded.selector = member;
  if (decoded.selector.contains(':')) return invalid("a member with a colon");
  std::ranges::replace(decoded.selector, '_', ':');
  auto arguments = readValues(message, contents, fileLimit);
  if (!arguments) {
    arguments.error().context.insert(0, "\"" + decoded.selector + "\": ");
    return std::unexpected(std::move(arguments.error()));
  }
  if (auto checked = checkPeerSelector(decoded.selector, arguments->size()); !checked) {
    return std::unexpected(std::move(checked.error()));
  }
  decoded.arguments = std::move(*arguments);
  return decoded;
}

MessageResult decodeAnswer(DBusMessage* message, PeerMessageContents contents,
                           std::size_t fileLimit) {
  const auto values = readValues(message, contents, fileLimit);
  if (!values) return unreadable(values.error());
  if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_ERROR) {
    return std::unexpected(exceptionOf(message, *values));
  }
  if (values->empty()) return Value();
  if (values->size() == 1) return values->front();
  return unreadable(Error{ErrorCode::kInvalid, 0, "more than one value"});
}

}  // namespace platform
