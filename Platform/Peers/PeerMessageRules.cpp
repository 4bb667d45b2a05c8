#include "Platform/Peers/PeerMessageRules.h"

#include <algorithm>
#include <string>

#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/Texts/Utf8.h"

namespace platform {

namespace {

std::unexpected<Error> inside(std::string where, Error error) {
  error.context.insert(0, std::move(where));
  return std::unexpected(std::move(error));
}

// Walks over the values to be sent in the way of the marshaller.
class Measure {
 public:
  explicit Measure(PeerMessageContents contents = PeerMessageContents::kValues)
      : contents_(contents) {}

  Result<void> variant(const Value& value) {
    if (++nodes_ > kMaxPeerNodes) {
      return invalid(": more than " + std::to_string(kMaxPeerNodes) + " values");
    }
    const std::size_t signatureLength = [&]() -> std::size_t {
      switch (value.type()) {
        case Value::Type::kDictionary:
          return 5;
        case Value::Type::kNil:
        case Value::Type::kNullMarker:
        case Value::Type::kDate:
          return 3;
        case Value::Type::kData:
        case Value::Type::kArray:
          return 2;
        default:
          return 1;
      }
    }();
    bytes_ += 1 + signatureLength + 1;
    return content(value);
  }

  Result<void> text(std::string_view text) {
    if (text.contains('\0') || findIllFormedUtf8(text))
      return invalid(": a text with NUL or that is not UTF-8");
    return add(4, 4 + text.size() + 1);
  }

  std::size_t bytes() const { return bytes_; }

 private:
  Result<void> add(std::size_t alignment, std::size_t size) {
    bytes_ = (bytes_ + alignment - 1) / alignment * alignment + size;
    if (bytes_ + kPeerMessageHeaderBytes > kMaxPeerMemoryFileBytes) {
      return invalid(": a message of more than " + std::to_string(kMaxPeerMemoryFileBytes) +
                     " bytes");
    }
    return {};
  }

  Result<void> content(const Value& value) {
    switch (value.type()) {
      case Value::Type::kNil:
      case Value::Type::kNullMarker:
        return add(8, 1);
      case Value::Type::kBoolean:
        return add(4, 4);
      case Value::Type::kInteger:
      case Value::Type::kReal:
      case Value::Type::kDate:
        return add(8, 8);
      case Value::Type::kString:
        return text(*value.string());
      case Value::Type::kData:
        return add(4, 4 + value.data()->size());
      case Value::Type::kArray:
        return array(*value.array());
      case Value::Type::kDictionary:
        return dictionary(*value.dictionary());
      case Value::Type::kRemoteObject:
        if (contents_ == PeerMessageContents::kValuesAndEndpoints && endpointIn(value)) {
          return endpoint();
        }
        return invalid(": a reference to an object (" + std::string(className(value)) +
                       ") can't travel in a plain message");
    }
    return {};
  }

  Result<void> endpoint() {
    if (++descriptors_ > kMaxPeerDescriptors) {
      return invalid(": more than " + std::to_string(kMaxPeerDescriptors) + " endpoints");
    }
    return add(4, 4);
  }

  Result<void> array(const Array& elements) {
    if (auto entered = enter(); !entered) return entered;
    if (auto added = add(4, 4); !added) return added;
    std::size_t index = 0;
    for (const Value& element : elements) {
      if (auto added = variant(element); !added) {
        return inside("[" + std::to_string(index) + "]", std::move(added.error()));
      }
      ++index;
    }
    --depth_;
    return {};
  }

  Result<void> dictionary(const Dictionary& entries) {
    if (auto entered = enter(); !entered) return entered;
    if (auto added = add(4, 4); !added) return added;
    if (auto added = add(8, 0); !added) return added;
    for (const auto& [key, value] : entries) {
      ++nodes_;
      if (auto aligned = add(8, 0); !aligned) return aligned;
      auto added = text(key);
      if (!added) return inside("'s key", std::move(added.error()));
      added = variant(value);
      if (!added) return inside("[\"" + key + "\"]", std::move(added.error()));
    }
    --depth_;
    return {};
  }

  Result<void> enter() {
    if (++depth_ <= kMaxPeerDepth) return {};
    return invalid(": arrays and dictionaries more than " + std::to_string(kMaxPeerDepth) +
                   " deep");
  }

  const PeerMessageContents contents_;
  std::size_t bytes_ = 0;
  std::size_t nodes_ = 0;
  std::size_t descriptors_ = 0;
  std::size_t depth_ = 0;
};

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

Result<void> checkPeerSelector(std::string_view selector, std::size_t argumentCount) {
  if (selector.empty()) return invalid("an empty selector");
  if (selector.size() > kMaxPeerSelectorLength) {
    return invalid("a selector of more than " + std::to_string(kMaxPeerSelectorLength) +
                   " characters");
  }
  // It may be a peer's, so an ill-formed selector must not be quoted in a text.
  if (!isAsciiLetter(selector.front()) || !std::ranges::all_of(selector, [](char c) {
        return isAsciiLetter(c) || isAsciiDigit(c) || c == ':';
      })) {
    return invalid("a selector that is not made of letters, digits and colons");
  }
  const auto colons = static_cast<std::size_t>(std::ranges::count(selector, ':'));
  if (colons > kMaxPeerArguments) {
    return invalid("a selector of more than " + std::to_string(kMaxPeerArguments) + " arguments");
  }
  if (colons != argumentCount) {
    return invalid("\"" + std::string(selector) + "\" with " + std::to_string(argumentCount) +
                   " arguments instead of " + std::to_string(colons));
  }
  return {};
}

Result<std::size_t> peerBodyBytes(const Array& arguments, PeerMessageContents contents) {
  Measure measure(contents);
  std::size_t number = 0;
  for (const Value& argument : arguments) {
    ++number;
    if (auto measured = measure.variant(argument); !measured) {
      return inside("value " + std::to_string(number), std::move(measured.error()));
    }
  }
  return measure.bytes();
}

Result<std::size_t> peerBodyBytes(const NSException& exception) {
  Measure measure;
  auto measured = measure.text(exception.reason);
  if (!measured) return inside("an exception's reason", std::move(measured.error()));
  measured = measure.text(exception.name);
  if (!measured) return inside("an exception's name", std::move(measured.error()));
  if (exception.name.size() > kMaxPeerSelectorLength) {
    return invalid("an exception's name of more than " + std::to_string(kMaxPeerSelectorLength) +
                   " bytes");
  }
  measured = measure.variant(exception.userInfo);
  if (!measured) return inside("an exception's user info", std::move(measured.error()));
  return measure.bytes();
}

std::size_t endpointsIn(const Value& value) {
  std::size_t count = endpointIn(value) ? 1 : 0;
  if (const Array* const elements = value.array()) {
    for (const Value& element : *elements) count += endpointsIn(element);
  }
  if (const Dictionary* const entries = value.dictionary()) {
    for (const auto& [key, entry] : *entries) count += endpointsIn(entry);
  }
  return count;
}

}  // namespace platform
