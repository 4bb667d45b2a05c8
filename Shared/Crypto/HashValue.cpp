#include "Shared/Crypto/HashValue.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "Platform/Digests/Digest.h"
#include "Platform/PropertyLists/PropertyList.h"

namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;

constexpr std::string_view kValueKey = "value";
constexpr std::string_view kTypeKey = "type";

std::size_t digestBytes(std::int32_t type) {
  if (type == HashValue::kMD5) return platform::CC_MD5_DIGEST_LENGTH;
  if (type == HashValue::kSHA256) return platform::CC_SHA256_DIGEST_LENGTH;
  return 0;
}

// Copies the bytes, as far as there is room.
HashValue::Buffer filledWith(std::span<const std::uint8_t> bytes, std::size_t room) {
  HashValue::Buffer buffer{};
  std::ranges::copy(bytes.first(std::min(bytes.size(), room)), buffer.begin());
  return buffer;
}

}  // namespace

HashValue HashValue::initHashValueMD5HashWithBytes(std::span<const std::uint8_t> bytes) {
  return initWithBuffer(platform::CC_MD5(bytes), kMD5);
}

HashValue HashValue::initSha256HashWithBytes(std::span<const std::uint8_t> bytes) {
  return initWithBuffer(platform::CC_SHA256(bytes), kSHA256);
}

HashValue HashValue::md5HashWithData(const platform::Data& data) {
  return initHashValueMD5HashWithBytes(data);
}

HashValue HashValue::sha256HashWithData(const platform::Data& data) {
  return initSha256HashWithBytes(data);
}

HashValue HashValue::initWithBuffer(std::span<const std::uint8_t> buffer,
                                    std::int32_t hashValueType) {
  HashValue made;
  made.value_ = filledWith(buffer, digestBytes(hashValueType));
  made.type_ = hashValueType;
  return made;
}

std::string HashValue::description() const {
  return platform::hexadecimalText(std::span(value_).first(digestBytes(type_)));
}

std::uint64_t HashValue::hash() const {
  std::uint64_t number = 0;
  std::memcpy(&number, value_.data(), sizeof(number));
  return number;
}

platform::Dictionary HashValue::encodeWithCoder() const {
  return {{std::string(kValueKey), platform::Data(value_.begin(), value_.end())},
          {std::string(kTypeKey), type_}};
}

Result<HashValue> HashValue::initWithCoder(const platform::Dictionary& archive) {
  const platform::Value& value = archive[kValueKey];
  if (!value.data()) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, fmt::format("\"{}\" must be data", kValueKey)});
  }
  const auto type = archive[kTypeKey].integer();
  if (!type || !std::in_range<std::int32_t>(*type)) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, fmt::format("\"{}\" must be a 32-bit integer", kTypeKey)});
  }
  HashValue decoded;
  decoded.value_ = filledWith(*value.data(), kBufferBytes);
  decoded.type_ = static_cast<std::int32_t>(*type);
  return decoded;
}

Result<platform::Data> HashValue::archivedData() const {
  return platform::writePropertyList(encodeWithCoder(), platform::PropertyListFormat::kBinary);
}

Result<HashValue> HashValue::unarchive(std::span<const std::uint8_t> bytes,
                                       std::string_view sourceName) {
  const auto failure = [&](ErrorCode code, std::string_view what) {
    return std::unexpected(Error{code, 0, fmt::format("{}: {}", sourceName, what)});
  };
  if (bytes.size() > kMaxArchiveBytes) {
    return failure(
        ErrorCode::kExhausted,
        fmt::format("is larger than the {} bytes of a digest's archive", kMaxArchiveBytes));
  }
  const Result<platform::Value> list = platform::readPropertyList(bytes, sourceName);
  if (!list) return std::unexpected(list.error());
  const platform::Dictionary* const archive = list->dictionary();
  if (!archive) return failure(ErrorCode::kInvalid, "must be a dictionary");
  Result<HashValue> decoded = initWithCoder(*archive);
  if (!decoded) return failure(decoded.error().code, decoded.error().context);
  return decoded;
}
