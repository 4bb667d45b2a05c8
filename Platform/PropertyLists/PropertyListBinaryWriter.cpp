#include "Platform/PropertyLists/PropertyListBinaryWriter.h"

#include <bit>
#include <deque>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListBinaryObjects.h"
#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/Texts/Utf8.h"

// Objects are numbered in the order of their visit: a collection, then its elements, or all its
// keys and then all its values, depth first. Equal scalars of one type are one object; collections
// are never shared. The bytes are thus a function of the value, and the same as other writers
// produce.

namespace platform {
namespace {

using Number = std::size_t;

// The size of an unsigned integer: 1, 2, 4 or 8 bytes.
std::size_t sizeFor(std::uint64_t value) {
  if (value <= std::numeric_limits<std::uint8_t>::max()) return 1;
  if (value <= std::numeric_limits<std::uint16_t>::max()) return 2;
  return value <= std::numeric_limits<std::uint32_t>::max() ? 4 : 8;
}

template <typename Bytes>
void appendBigEndian(Bytes& bytes, std::uint64_t value, std::size_t size) {
  for (std::size_t i = size; i-- > 0;) {
    bytes.push_back(static_cast<typename Bytes::value_type>(value >> (8 * i) & 0xFF));
  }
}

std::string integerObject(std::uint64_t value) {
  const std::size_t size = sizeFor(value);
  std::string object;
  appendBigEndian(object, 0x10u | static_cast<unsigned>(std::countr_zero(size)), 1);
  appendBigEndian(object, value, size);
  return object;
}

std::string floatingObject(std::uint8_t marker, double real) {
  std::string object;
  appendBigEndian(object, marker, 1);
  appendBigEndian(object, std::bit_cast<std::uint64_t>(real), sizeof real);
  return object;
}

// The marker and count of a string, data or collection.
std::string countedObject(std::uint8_t kind, std::size_t count) {
  constexpr std::size_t kCountFollows = 0xF;
  std::string object;
  appendBigEndian(object, kind << 4 | std::min(count, kCountFollows), 1);
  if (count >= kCountFollows) object += integerObject(count);
  return object;
}

std::string dataObject(const Data& data) {
  std::string object = countedObject(0x4, data.size());
  object.append(data.begin(), data.end());
  return object;
}

std::string stringObject(std::string_view text) {
  const bool ascii = std::ranges::none_of(
      text, [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
  if (ascii) return countedObject(0x5, text.size()).append(text);
  const std::u16string units = utf16FromUtf8(text);
  std::string object = countedObject(0x6, units.size());
  for (const char16_t unit : units) appendBigEndian(object, unit, 2);
  return object;
}

class BinaryWriting {
 public:
  Result<Data> take(const Value& value) &&;

 private:
  struct Object {
    std::string bytes;  // without the references of a collection
    std::vector<Number> references;
  };

  Number add(const Value& value);
  Number addCollection(std::string bytes);
  Number addScalar(std::string bytes);

  std::deque<Object> objects_;
  // By their bytes, which include the type. The keys are views of objects_, whose elements don't
  // move.
  std::unordered_map<std::string_view, Number> scalars_;
};

Number BinaryWriting::addScalar(std::string bytes) {
  const auto known = scalars_.find(bytes);
  if (known != scalars_.end()) return known->second;
  const Number number = objects_.size();
  objects_.push_back({std::move(bytes), {}});
  scalars_.emplace(objects_.back().bytes, number);
  return number;
}

Number BinaryWriting::addCollection(std::string bytes) {
  objects_.push_back({std::move(bytes), {}});
  return objects_.size() - 1;
}

Number BinaryWriting::add(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNil:
    case Value::Type::kRemoteObject:
      break;  // checkWritable() has refused it.
    case Value::Type::kNullMarker:
      return addScalar(std::string(1, '\x00'));
    case Value::Type::kBoolean:
      return addScalar(*value.boolean() ? "\x09" : "\x08");
    case Value::Type::kInteger:
      return addScalar(integerObject(static_cast<std::uint64_t>(*value.integer())));
    case Value::Type::kReal:
      return addScalar(floatingObject(0x23, *value.real()));
    case Value::Type::kDate:
      return addScalar(floatingObject(0x33, value.date()->secondsSinceReferenceDate));
    case Value::Type::kString:
      return addScalar(stringObject(*value.string()));
    case Value::Type::kData:
      return addScalar(dataObject(*value.data()));
    case Value::Type::kArray: {
      const Array& array = *value.array();
      const Number number = addCollection(countedObject(0xA, array.size()));
      for (const Value& element : array) {
        const Number reference = add(element);
        objects_[number].references.push_back(reference);
      }
      return number;
    }
    case Value::Type::kDictionary: {
      const Dictionary& dictionary = *value.dictionary();
      const Number number = addCollection(countedObject(0xD, dictionary.size()));
      for (const auto& entry : dictionary) {
        const Number reference = addScalar(stringObject(entry.first));
        objects_[number].references.push_back(reference);
      }
      for (const auto& entry : dictionary) {
        const Number reference = add(entry.second);
        objects_[number].references.push_back(reference);
      }
      return number;
    }
  }
  std::unreachable();
}

Result<Data> BinaryWriting::take(const Value& value) && {
  const Number top = add(value);
  const std::size_t referenceSize = sizeFor(objects_.size());
  Data output(kBinaryPropertyListMagic.begin(), kBinaryPropertyListMagic.end());
  std::vector<std::size_t> offsets;
  offsets.reserve(objects_.size());
  for (const Object& object : objects_) {
    offsets.push_back(output.size());
    output.insert(output.end(), object.bytes.begin(), object.bytes.end());
    for (const Number reference : object.references)
      appendBigEndian(output, reference, referenceSize);
  }
  const std::size_t table = output.size();
  const std::size_t offsetSize = sizeFor(table);
  for (const std::size_t offset : offsets) appendBigEndian(output, offset, offsetSize);
  appendBigEndian(output, 0, 6);
  appendBigEndian(output, offsetSize, 1);
  appendBigEndian(output, referenceSize, 1);
  appendBigEndian(output, offsets.size(), 8);
  appendBigEndian(output, top, 8);
  appendBigEndian(output, table, 8);
  if (output.size() <= kMaxPropertyListBytes) return output;
  return std::unexpected(
      Error{ErrorCode::kExhausted, 0,
            fmt::format("a binary property list of more than {} bytes", kMaxPropertyListBytes)});
}

}  // namespace

Result<Data> binaryPropertyListBytes(const Value& value) { return BinaryWriting().take(value); }

}  // namespace platform
