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

// The bytes of a binary property list: its trailer, its offset table and its objects one by one,
// each of which it takes for what it is and nothing more; what a collection refers to is its
// reader's business. No offset, size or count is used before it is known to lie within the file.
//
// The format, big-endian throughout: the magic; the objects, one behind another, each a marker byte
// (kind in the upper half, size or count in the lower) and its content; a table with the offset of
// each object; a trailer of 32 bytes that says how large all that is. Collections refer to their
// elements by number.
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

  // The content of an object: where it stands and how many bytes or references it has.
  struct Content {
    std::size_t offset = 0;
    std::size_t count = 0;
  };

  // `bytes`, which begin with the magic, must live as long as the objects are read.
  static Outcome<PropertyListBinaryObjects> open(std::span<const std::uint8_t> bytes);

  std::size_t count() const { return count_; }
  std::size_t referenceSize() const { return referenceSize_; }
  // The top object's number, and where the file says so.
  std::size_t top() const { return top_; }
  std::size_t topAt() const { return bytes_.size() - 16; }

  // Where the object of a number below count() stands.
  Outcome<std::size_t> offsetOf(std::size_t number) const;
  Kind kindAt(std::size_t offset) const;
  // Each of these may be asked once for each object: together they read no more bytes than there
  // are, so that objects laid over one another, which no writer makes, are found out.
  Outcome<Value> scalarAt(std::size_t offset);
  Outcome<Content> contentAt(std::size_t offset, std::size_t itemSize);
  // The number of the object that the reference at `offset`, within a content, refers to.
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
  std::size_t objectsEnd_ = 0;  // where the offset table begins
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t count_ = 0;
  std::size_t top_ = 0;
  std::size_t bytesRead_ = 0;
};

}  // namespace platform
