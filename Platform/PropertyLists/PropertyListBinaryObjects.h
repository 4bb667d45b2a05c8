#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

inline constexpr std::string_view kBinaryPropertyListMagic = "bplist00";

// The bytes of a binary property list: its trailer, its offset table and its objects. It reads one
// object at a time; the reader follows the references of collections. Every offset, size and count
// is checked against the file before its use.
//
// The format is big-endian throughout. It consists of the magic; the objects in sequence, each with
// a marker byte (kind in the upper half, size or count in the lower) and its content; a table with
// the offset of each object; and a trailer of 32 bytes with all the sizes. Collections refer to
// their elements by number.
class PropertyListBinaryObjects {
 public:
  struct Failure {
    ErrorCode code = ErrorCode::kInvalid;
    std::size_t offset = 0;
    std::string text;
  };
  template <typename T>
  using Outcome = Result<T, Failure>;

  // The failure of malformed input at `offset`.
  static std::unexpected<Failure> invalid(std::size_t offset, std::string text) {
    return std::unexpected(Failure{ErrorCode::kInvalid, offset, std::move(text)});
  }

  enum class Kind { kScalar, kArray, kDictionary };

  // The content of an object: its offset, and its number of bytes or references.
  struct Content {
    std::size_t offset = 0;
    std::size_t count = 0;
  };

  // `bytes` begin with the magic and must live as long as this object.
  static Outcome<PropertyListBinaryObjects> open(std::span<const std::uint8_t> bytes);

  std::size_t count() const { return count_; }
  std::size_t referenceSize() const { return referenceSize_; }
  // The top object's number, and the offset of that number in the file.
  std::size_t top() const { return top_; }
  std::size_t topAt() const { return bytes_.size() - 16; }

  // The offset of an object, whose number must be below count().
  Outcome<std::size_t> offsetOf(std::size_t number) const;
  Kind kindAt(std::size_t offset) const;
  // Call each of these at most once per object. Together they read at most as many bytes as there
  // are, so that overlapping objects, which no writer makes, are detected.
  Outcome<Value> scalarAt(std::size_t offset);
  Outcome<Content> contentAt(std::size_t offset, std::size_t itemSize);
  // The number of the object in the reference at `offset`, which must be within a content.
  Outcome<std::size_t> referenceAt(std::size_t offset) const;

 private:
  explicit PropertyListBinaryObjects(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  Outcome<void> readTrailer();
  std::uint64_t unsignedAt(std::size_t offset, std::size_t size) const;
  Outcome<Value> integerAt(std::size_t offset) const;
  Outcome<Value> floatingAt(std::size_t offset) const;
  Outcome<Value> dataAt(std::size_t offset);
  Outcome<Value> stringAt(std::size_t offset);

  std::span<const std::uint8_t> bytes_;
  std::size_t objectsEnd_ = 0;  // the beginning of the offset table
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t count_ = 0;
  std::size_t top_ = 0;
  std::size_t bytesRead_ = 0;
};

}  // namespace platform
