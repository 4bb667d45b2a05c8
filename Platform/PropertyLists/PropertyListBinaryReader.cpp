#include "Platform/PropertyLists/PropertyListBinaryReader.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListBinaryObjects.h"
#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/Texts/QuotedText.h"

// Objects can be shared. A hostile file can share them so that its value is far larger than the
// file, or infinite. Therefore each object is read only once, and stores its total size with all
// objects that it refers to.

namespace platform {
namespace {

using Failure = PropertyListBinaryObjects::Failure;
template <typename T>
using Outcome = PropertyListBinaryObjects::Outcome<T>;

std::string tooMuchContent() {
  return fmt::format(
      "more than {} bytes of strings and data, shared ones counted wherever they "
      "stand",
      kMaxPropertyListContentBytes);
}

std::unexpected<Failure> overLimit(std::size_t offset, std::string text) {
  return std::unexpected(Failure{ErrorCode::kExhausted, offset, std::move(text)});
}

std::unexpected<Failure> tooDeep(std::size_t offset) {
  return overLimit(
      offset, fmt::format("more than {} collections inside one another", kMaxPropertyListDepth));
}

// An object that has been read, and its size with all references followed.
struct Object {
  Value value;
  std::size_t nodes = 1;
  std::size_t contentBytes = 0;
  std::size_t height = 0;  // depth of nested collections, itself included
};

class BinaryReading {
 public:
  explicit BinaryReading(PropertyListBinaryObjects objects)
      : objects_(std::move(objects)), states_(objects_.count()), read_(objects_.count()) {}

  Outcome<Value> read();

 private:
  Outcome<const Object*> object(std::size_t number, std::size_t depth, std::size_t referredAt);
  Outcome<const Object*> reference(std::size_t offset, std::size_t depth);
  Outcome<Object> parse(std::size_t offset, std::size_t depth);
  Outcome<Object> parseScalar(std::size_t offset);
  Outcome<Object> parseArray(std::size_t offset, std::size_t depth);
  Outcome<Object> parseDictionary(std::size_t offset, std::size_t depth);
  std::optional<Failure> copyKey(std::size_t bytes, std::size_t offset);
  static std::optional<Failure> tooMany(std::size_t nodes, std::size_t offset);
  static std::optional<Failure> include(Object& whole, const Object& part, std::size_t offset);

  enum class State : std::uint8_t { kUnread, kBeingRead, kRead };

  PropertyListBinaryObjects objects_;
  std::vector<State> states_;
  std::vector<Object> read_;
  std::size_t keyBytes_ = 0;
};

Outcome<Value> BinaryReading::read() {
  const auto root = object(objects_.top(), 0, objects_.topAt());
  if (!root) return std::unexpected(root.error());
  return (*root)->value;
}

// `depth` is the number of collections around it.
Outcome<const Object*> BinaryReading::object(std::size_t number, std::size_t depth,
                                             std::size_t referredAt) {
  Object& object = read_[number];
  switch (states_[number]) {
    case State::kBeingRead:
      return PropertyListBinaryObjects::invalid(referredAt,
                                                fmt::format("object {} contains itself", number));
    case State::kRead:
      break;
    case State::kUnread: {
      const auto offset = objects_.offsetOf(number);
      if (!offset) return std::unexpected(offset.error());
      states_[number] = State::kBeingRead;
      auto parsed = parse(*offset, depth);
      if (!parsed) return std::unexpected(std::move(parsed.error()));
      object = *std::move(parsed);
      states_[number] = State::kRead;
      break;
    }
  }
  // It may have been less deep where it was read first.
  if (depth + object.height > kMaxPropertyListDepth) return tooDeep(referredAt);
  return &object;
}

Outcome<const Object*> BinaryReading::reference(std::size_t offset, std::size_t depth) {
  const auto number = objects_.referenceAt(offset);
  if (!number) return std::unexpected(number.error());
  return object(*number, depth, offset);
}

Outcome<Object> BinaryReading::parse(std::size_t offset, std::size_t depth) {
  switch (objects_.kindAt(offset)) {
    case PropertyListBinaryObjects::Kind::kScalar:
      return parseScalar(offset);
    case PropertyListBinaryObjects::Kind::kArray:
      return parseArray(offset, depth);
    case PropertyListBinaryObjects::Kind::kDictionary:
      return parseDictionary(offset, depth);
  }
  std::unreachable();
}

Outcome<Object> BinaryReading::parseScalar(std::size_t offset) {
  auto value = objects_.scalarAt(offset);
  if (!value) return std::unexpected(std::move(value.error()));
  std::size_t contentBytes = 0;
  if (const std::string* text = value->string()) contentBytes = text->size();
  if (const Data* data = value->data()) contentBytes = data->size();
  return Object{*std::move(value), 1, contentBytes};
}

Outcome<Object> BinaryReading::parseArray(std::size_t offset, std::size_t depth) {
  const auto found = objects_.contentAt(offset, objects_.referenceSize());
  if (!found) return std::unexpected(found.error());
  if (auto failure = tooMany(1 + found->count, offset)) return std::unexpected(*std::move(failure));
  if (depth == kMaxPropertyListDepth) return tooDeep(offset);
  Object whole{Value(), 1, 0, 1};
  Array elements;
  elements.reserve(found->count);
  for (std::size_t i = 0; i < found->count; ++i) {
    const std::size_t at = found->offset + i * objects_.referenceSize();
    const auto element = reference(at, depth + 1);
    if (!element) return std::unexpected(element.error());
    if (auto failure = include(whole, **element, at)) return std::unexpected(*std::move(failure));
    elements.push_back((*element)->value);
  }
  whole.value = Value(std::move(elements));
  return whole;
}

Outcome<Object> BinaryReading::parseDictionary(std::size_t offset, std::size_t depth) {
  const auto found = objects_.contentAt(offset, 2 * objects_.referenceSize());
  if (!found) return std::unexpected(found.error());
  if (auto failure = tooMany(1 + 2 * found->count, offset)) {
    return std::unexpected(*std::move(failure));
  }
  if (depth == kMaxPropertyListDepth) return tooDeep(offset);
  Object whole{Value(), 1, 0, 1};
  Dictionary entries;
  for (std::size_t i = 0; i < found->count; ++i) {
    const std::size_t keyAt = found->offset + i * objects_.referenceSize();
    const std::size_t valueAt = keyAt + found->count * objects_.referenceSize();
    const auto key = reference(keyAt, depth + 1);
    if (!key) return std::unexpected(key.error());
    const std::string* name = (*key)->value.string();
    if (name == nullptr)
      return PropertyListBinaryObjects::invalid(keyAt, "a dictionary's key that is no string");
    if (auto failure = copyKey(name->size(), keyAt)) {
      return std::unexpected(*std::move(failure));
    }
    const auto value = reference(valueAt, depth + 1);
    if (!value) return std::unexpected(value.error());
    for (const Object* part : {*key, *value}) {
      if (auto failure = include(whole, *part, keyAt)) return std::unexpected(*std::move(failure));
    }
    entries.set(*name, (*value)->value);
    if (entries.size() != i + 1) {
      return PropertyListBinaryObjects::invalid(
          keyAt, fmt::format("key {} occurs twice in its dictionary, expected once",
                             quotedInMessage(*name)));
    }
  }
  whole.value = Value(std::move(entries));
  return whole;
}

// A dictionary owns its keys, so a shared key is copied.
std::optional<Failure> BinaryReading::copyKey(std::size_t bytes, std::size_t offset) {
  keyBytes_ += bytes;
  if (keyBytes_ <= kMaxPropertyListContentBytes) return std::nullopt;
  return overLimit(offset, tooMuchContent()).error();
}

std::optional<Failure> BinaryReading::tooMany(std::size_t nodes, std::size_t offset) {
  if (nodes <= kMaxPropertyListNodes) return std::nullopt;
  return overLimit(offset, fmt::format("more than {} values and keys, shared ones counted wherever "
                                       "they stand",
                                       kMaxPropertyListNodes))
      .error();
}

std::optional<Failure> BinaryReading::include(Object& whole, const Object& part,
                                              std::size_t offset) {
  whole.nodes += part.nodes;
  whole.contentBytes += part.contentBytes;
  whole.height = std::max(whole.height, part.height + 1);
  if (auto failure = tooMany(whole.nodes, offset)) return failure;
  if (whole.contentBytes > kMaxPropertyListContentBytes) {
    return overLimit(offset, tooMuchContent()).error();
  }
  return std::nullopt;
}

}  // namespace

Result<Value> readBinaryPropertyList(std::span<const std::uint8_t> bytes,
                                     std::string_view sourceName) {
  auto objects = PropertyListBinaryObjects::open(bytes);
  auto value = objects ? BinaryReading(*std::move(objects)).read()
                       : std::unexpected(std::move(objects.error()));
  if (value) return *std::move(value);
  const Failure& failure = value.error();
  return std::unexpected(Error{
      failure.code, 0, fmt::format("{}: offset {}: {}", sourceName, failure.offset, failure.text)});
}

}  // namespace platform
