#include "Platform/PropertyLists/PropertyListBinaryObjects.h"

#include <algorithm>
#include <bit>

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Platform/Texts/Utf8.h"

namespace platform {
namespace {

using Failure = PropertyListBinaryObjects::Failure;
template <typename T>
using Outcome = PropertyListBinaryObjects::Outcome<T>;

constexpr std::size_t kTrailerSize = 32;

enum Marker : std::uint8_t {
  kNull = 0x00,
  kFalse = 0x08,
  kTrue = 0x09,
  kReal32 = 0x22,
  kReal64 = 0x23,
  kDate64 = 0x33,
};

enum Kind : std::uint8_t {
  kIntegers = 0x1,
  kDatas = 0x4,
  kAsciiStrings = 0x5,
  kUtf16Strings = 0x6,
  kUids = 0x8,
  kArrays = 0xA,
  kSets = 0xC,
  kDictionaries = 0xD,
};

}  // namespace

Outcome<PropertyListBinaryObjects> PropertyListBinaryObjects::open(
    std::span<const std::uint8_t> bytes) {
  PropertyListBinaryObjects objects(bytes);
  const auto read = objects.readTrailer();
  if (!read) return std::unexpected(read.error());
  return objects;
}

Outcome<void> PropertyListBinaryObjects::readTrailer() {
  // The minimum: magic, one object, one offset, trailer.
  if (bytes_.size() < kBinaryPropertyListMagic.size() + 2 + kTrailerSize) {
    return invalid(bytes_.size(),
                   "the file ends here, expected a binary property list of at least "
                   "42 bytes");
  }
  const std::size_t trailer = bytes_.size() - kTrailerSize;
  offsetSize_ = bytes_[trailer + 6];
  referenceSize_ = bytes_[trailer + 7];
  const std::uint64_t count = unsignedAt(trailer + 8, 8);
  const std::uint64_t top = unsignedAt(trailer + 16, 8);
  const std::uint64_t table = unsignedAt(trailer + 24, 8);
  if (offsetSize_ < 1 || offsetSize_ > 8) {
    return invalid(trailer + 6, fmt::format("offsets of {} bytes, expected 1 to 8", offsetSize_));
  }
  if (referenceSize_ < 1 || referenceSize_ > 8) {
    return invalid(trailer + 7,
                   fmt::format("references of {} bytes, expected 1 to 8", referenceSize_));
  }
  if (table <= kBinaryPropertyListMagic.size() || table >= trailer) {
    return invalid(trailer + 24, fmt::format("offset table at {}, expected {} to {}", table,
                                             kBinaryPropertyListMagic.size() + 1, trailer - 1));
  }
  // Both sides are below the file's size times eight, so nothing overflows.
  const std::size_t tableSize = trailer - static_cast<std::size_t>(table);
  if (count == 0 || count > tableSize || count * offsetSize_ != tableSize) {
    return invalid(trailer + 8, fmt::format("{} objects with offsets of {} bytes, expected the {} "
                                            "bytes between offset table and trailer",
                                            count, offsetSize_, tableSize));
  }
  if (count > kMaxPropertyListNodes) {
    return std::unexpected(
        Failure{ErrorCode::kExhausted, trailer + 8,
                fmt::format("{} objects, expected at most {}", count, kMaxPropertyListNodes)});
  }
  if (referenceSize_ < 8 && (count - 1) >> (8 * referenceSize_) != 0) {
    return invalid(trailer + 7, fmt::format("references of {} bytes can't tell {} objects apart",
                                            referenceSize_, count));
  }
  if (top >= count) {
    return invalid(trailer + 16, fmt::format("top object {}, expected 0 to {}", top, count - 1));
  }
  objectsEnd_ = static_cast<std::size_t>(table);
  count_ = static_cast<std::size_t>(count);
  top_ = static_cast<std::size_t>(top);
  return {};
}

// Reads at most eight bytes, which must be within the file.
std::uint64_t PropertyListBinaryObjects::unsignedAt(std::size_t offset, std::size_t size) const {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : bytes_.subspan(offset, size)) value = value << 8 | byte;
  return value;
}

Outcome<std::size_t> PropertyListBinaryObjects::offsetOf(std::size_t number) const {
  const std::size_t entry = objectsEnd_ + number * offsetSize_;
  const std::uint64_t offset = unsignedAt(entry, offsetSize_);
  if (offset >= kBinaryPropertyListMagic.size() && offset < objectsEnd_) {
    return static_cast<std::size_t>(offset);
  }
  return invalid(entry, fmt::format("offset {} of object {}, expected {} to {}", offset, number,
                                    kBinaryPropertyListMagic.size(), objectsEnd_ - 1));
}

Outcome<std::size_t> PropertyListBinaryObjects::referenceAt(std::size_t offset) const {
  const std::uint64_t number = unsignedAt(offset, referenceSize_);
  if (number < count_) return static_cast<std::size_t>(number);
  return invalid(offset,
                 fmt::format("reference to object {}, expected 0 to {}", number, count_ - 1));
}

PropertyListBinaryObjects::Kind PropertyListBinaryObjects::kindAt(std::size_t offset) const {
  switch (bytes_[offset] >> 4) {
    case kArrays:
      return Kind::kArray;
    case kDictionaries:
      return Kind::kDictionary;
  }
  return Kind::kScalar;
}

Outcome<Value> PropertyListBinaryObjects::scalarAt(std::size_t offset) {
  const std::uint8_t marker = bytes_[offset];
  switch (marker) {
    case kNull:
      return Value::nullMarker();
    case kFalse:
      return Value(false);
    case kTrue:
      return Value(true);
    case kReal32:
    case kReal64:
    case kDate64:
      return floatingAt(offset);
  }
  switch (marker >> 4) {
    case kIntegers:
      return integerAt(offset);
    case kDatas:
      return dataAt(offset);
    case kAsciiStrings:
    case kUtf16Strings:
      return stringAt(offset);
    case kUids:
      return invalid(offset, "a UID, which belongs to archives, expected a property list's value");
    case kSets:
      return invalid(offset, "a set, expected a property list's value");
  }
  return invalid(offset, fmt::format("marker 0x{:02x}, expected a property list's value", marker));
}

Outcome<Value> PropertyListBinaryObjects::integerAt(std::size_t offset) const {
  const std::size_t exponent = bytes_[offset] & 0xF;
  if (exponent > 4) {
    return invalid(offset,
                   fmt::format("integer of 2^{} bytes, expected 1, 2, 4, 8 or 16", exponent));
  }
  std::size_t size = std::size_t{1} << exponent;
  if (size > objectsEnd_ - offset - 1) {
    return invalid(offset, fmt::format("integer of {} bytes, but only {} are left", size,
                                       objectsEnd_ - offset - 1));
  }
  // Sizes of 1, 2 and 4 bytes are unsigned, 8 bytes are signed. 16 bytes are signed, too; writers
  // use them for unsigned integers that do not fit into 8.
  std::size_t at = offset + 1;
  std::uint64_t upper = 0;
  if (size == 16) {
    upper = unsignedAt(at, 8);
    at += 8;
    size = 8;
  }
  const std::uint64_t value = unsignedAt(at, size);
  const bool negative = exponent >= 3 && value >> 63 != 0;
  if (exponent == 4 && upper != (negative ? ~std::uint64_t{0} : 0)) {
    return invalid(offset,
                   "integer out of range, expected -9223372036854775808 to "
                   "9223372036854775807");
  }
  return Value(static_cast<std::int64_t>(value));
}

Outcome<Value> PropertyListBinaryObjects::floatingAt(std::size_t offset) const {
  const std::size_t size = bytes_[offset] == kReal32 ? 4 : 8;
  if (size > objectsEnd_ - offset - 1) {
    return invalid(offset, fmt::format("real or date of {} bytes, but only {} are left", size,
                                       objectsEnd_ - offset - 1));
  }
  const std::uint64_t bits = unsignedAt(offset + 1, size);
  const double value = size == 4 ? std::bit_cast<float>(static_cast<std::uint32_t>(bits))
                                 : std::bit_cast<double>(bits);
  if (bytes_[offset] != kDate64) return Value(value);
  if (!isWithinPropertyListDates(value)) {
    return invalid(offset, fmt::format("date {} s from 2001, expected one of the years 1 to 9999",
                                       textFromReal(value)));
  }
  return Value(Date{value});
}

// The place of the content of a string, data or collection, and the number of its items. All items
// are within the objects: a count is used only after its bytes have been found to exist.
PropertyListBinaryObjects::Outcome<PropertyListBinaryObjects::Content>
PropertyListBinaryObjects::contentAt(std::size_t offset, std::size_t itemSize) {
  std::uint64_t count = bytes_[offset] & 0xF;
  std::size_t begin = offset + 1;
  if (count == 0xF) {
    if (begin >= objectsEnd_ || bytes_[begin] < 0x10 || bytes_[begin] > 0x13) {
      return invalid(begin, "expected a count, an integer of 1, 2, 4 or 8 bytes");
    }
    const std::size_t size = std::size_t{1} << (bytes_[begin] & 0xF);
    if (size > objectsEnd_ - begin - 1) {
      return invalid(begin, fmt::format("count of {} bytes, but only {} are left", size,
                                        objectsEnd_ - begin - 1));
    }
    count = unsignedAt(begin + 1, size);
    begin += 1 + size;
  }
  const std::size_t left = objectsEnd_ - begin;
  if (count > left / itemSize) {
    return invalid(offset, fmt::format("{} items of {} bytes, but only {} bytes are left", count,
                                       itemSize, left));
  }
  bytesRead_ += static_cast<std::size_t>(count) * itemSize;
  if (bytesRead_ > objectsEnd_) {
    return invalid(offset, "objects that overlap, expected one behind another");
  }
  return Content{begin, static_cast<std::size_t>(count)};
}

Outcome<Value> PropertyListBinaryObjects::dataAt(std::size_t offset) {
  const auto found = contentAt(offset, 1);
  if (!found) return std::unexpected(found.error());
  const auto data = bytes_.subspan(found->offset, found->count);
  return Value(Data(data.begin(), data.end()));
}

Outcome<Value> PropertyListBinaryObjects::stringAt(std::size_t offset) {
  const bool ascii = bytes_[offset] >> 4 == kAsciiStrings;
  const std::size_t unitSize = ascii ? 1 : 2;
  const auto found = contentAt(offset, unitSize);
  if (!found) return std::unexpected(found.error());
  const auto units = bytes_.subspan(found->offset, found->count * unitSize);
  if (ascii) {
    const auto high = std::ranges::find_if(units, [](std::uint8_t byte) { return byte >= 0x80; });
    if (high != units.end()) {
      return invalid(found->offset + static_cast<std::size_t>(high - units.begin()),
                     fmt::format("byte 0x{:02x} in an ASCII string", *high));
    }
    return Value(std::string(units.begin(), units.end()));
  }
  auto text = utf8FromUtf16(units, ByteOrder::kBigEndian);
  if (!text) return invalid(found->offset + text.error(), "half a surrogate pair in a string");
  return Value(*std::move(text));
}

}  // namespace platform
