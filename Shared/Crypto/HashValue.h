#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// A digest as an immutable value: MD5 or SHA-256. It can be copied, archived, and be the key of a
// table. Any thread; nothing blocks.
//
// Any other type is kept as a number and carries no digest, so that a value of a later version
// survives being read and written again.
class HashValue {
 public:
  // The buffer of every type: the digest and then zero bytes.
  static constexpr std::size_t kBufferBytes = 48;
  using Buffer = std::array<std::uint8_t, kBufferBytes>;

  enum Type : std::int32_t {
    kMD5 = 0,     // 16 bytes
    kSHA256 = 1,  // 32 bytes
  };

  // The digest of `bytes`, of any size.
  static HashValue initHashValueMD5HashWithBytes(std::span<const std::uint8_t> bytes);
  static HashValue initSha256HashWithBytes(std::span<const std::uint8_t> bytes);
  // The same for a data object.
  static HashValue md5HashWithData(const platform::Data& data);
  static HashValue sha256HashWithData(const platform::Data& data);

  // A digest that was computed elsewhere: 16 bytes of `buffer` for MD5, 32 for SHA-256, nothing for
  // any other type. Bytes that a shorter buffer lacks are zero.
  static HashValue initWithBuffer(std::span<const std::uint8_t> buffer, std::int32_t hashValueType);

  const Buffer& value() const { return value_; }
  std::int32_t type() const { return type_; }

  // The digest as lower-case hexadecimal digits, 32 or 64 of them; empty for any other type.
  std::string description() const;

  // The first 8 bytes of the buffer in the machine's byte order.
  std::uint64_t hash() const;

  // The same type and the same buffer.
  bool operator==(const HashValue& other) const = default;
  // False for null, which is no digest.
  bool isEqual(const HashValue* other) const { return other && *this == *other; }

  // A new value with this one's digest; for an unknown type, deliberately, the buffer is all zeros.
  // (C++'s own copy is the same object once more and keeps all.)
  HashValue copyWithZone() const { return initWithBuffer(value_, type_); }

  // The value as entries of an archive, and of a message to another program: "value", a data object
  // of the whole buffer, and "type", a 32-bit integer.
  platform::Dictionary encodeWithCoder() const;
  // The first 48 bytes of a longer "value" count, and a shorter one is padded with zeros. If an
  // entry is absent or has the wrong type: kInvalid, naming it. Other entries are ignored.
  static platform::Result<HashValue> initWithCoder(const platform::Dictionary& archive);

  // The entries as a property list, in a file or a message: written in binary, read in either form.
  // `sourceName` begins the text of every error; kExhausted for more than kMaxArchiveBytes.
  static constexpr std::size_t kMaxArchiveBytes = 4096;
  platform::Result<platform::Data> archivedData() const;
  static platform::Result<HashValue> unarchive(std::span<const std::uint8_t> bytes,
                                               std::string_view sourceName);

 private:
  HashValue() = default;

  Buffer value_{};
  std::int32_t type_ = kMD5;
};

template <>
struct std::hash<HashValue> {
  std::size_t operator()(const HashValue& value) const noexcept { return value.hash(); }
};
