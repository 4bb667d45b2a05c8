#include "Shared/Categories/Base64.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>

#include "Shared/Categories/NSStringExtensions.h"

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::size_t kBytesInGroup = 3;
constexpr std::size_t kCharactersInGroup = 4;
constexpr std::size_t kGroupsInLine = 16;
constexpr std::size_t kBytesInLine = kGroupsInLine * kBytesInGroup;
constexpr std::string_view kLineEnd = "\r\n";

constexpr std::uint8_t kSkip = 65;

// The two characters of every 12 bits, so that a group takes two lookups.
constexpr auto kPairs = [] {
  std::array<std::array<char, 2>, 4096> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) pairs[i] = {kAlphabet[i >> 6], kAlphabet[i & 63]};
  return pairs;
}();

// The value of every character, or kSkip.
constexpr auto kValues = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(kSkip);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}();

constexpr std::uint32_t kNoGroup = 0x80000000;

// The value of every character shifted to its place in a group; kNoGroup for skipped characters.
constexpr auto kPlaced = [] {
  std::array<std::array<std::uint32_t, 256>, kCharactersInGroup> placed{};
  for (std::size_t place = 0; place < kCharactersInGroup; ++place) {
    for (std::size_t c = 0; c < 256; ++c) {
      placed[place][c] =
          kValues[c] == kSkip ? kNoGroup : std::uint32_t{kValues[c]} << (18 - 6 * place);
    }
  }
  return placed;
}();

template <typename T>
Base64Buffer<T> allocate(std::size_t size) {
  return Base64Buffer<T>(static_cast<T*>(std::malloc(std::max<std::size_t>(size, 1))));
}

void put(char* to, std::size_t twelveBits) { std::memcpy(to, kPairs[twelveBits].data(), 2); }

// Whole groups.
char* encodeGroups(const std::uint8_t* from, std::size_t groups, char* to) {
  for (; groups >= 2; groups -= 2, from += 6, to += 8) {
    const std::uint32_t first = (from[0] << 16) | (from[1] << 8) | from[2];
    const std::uint32_t second = (from[3] << 16) | (from[4] << 8) | from[5];
    put(to, first >> 12);
    put(to + 2, first & 0xfff);
    put(to + 4, second >> 12);
    put(to + 6, second & 0xfff);
  }
  if (groups == 1) {
    const std::uint32_t bits = (from[0] << 16) | (from[1] << 8) | from[2];
    put(to, bits >> 12);
    put(to + 2, bits & 0xfff);
    to += 4;
  }
  return to;
}

// One or two bytes.
char* encodeTail(const std::uint8_t* from, std::size_t bytes, char* to) {
  const std::uint32_t bits = (from[0] << 16) | (bytes == 2 ? from[1] << 8 : 0);
  put(to, bits >> 12);
  put(to + 2, bits & 0xfff);
  to[3] = '=';
  if (bytes == 1) to[2] = '=';
  return to + kCharactersInGroup;
}

// Nothing if the size would overflow.
std::optional<std::size_t> encodedSize(std::size_t length, Base64Lines lines) {
  const std::size_t groups = length / kBytesInGroup + (length % kBytesInGroup != 0);
  const std::size_t ends = lines == Base64Lines::kSeparate ? groups / kGroupsInLine : 0;
  std::size_t size = 0;
  if (__builtin_mul_overflow(groups, kCharactersInGroup, &size) ||
      __builtin_add_overflow(size, ends * kLineEnd.size() + 1, &size)) {
    return std::nullopt;
  }
  return size;
}

// The output of decode() for complete groups without a skipped character, the usual case. Returns
// the number of these groups from `input` on.
std::size_t decodeGroups(const unsigned char* input, std::size_t length, unsigned char* output) {
  std::size_t groups = 0;
  for (; length - groups * kCharactersInGroup >= kCharactersInGroup; ++groups) {
    const unsigned char* const from = input + groups * kCharactersInGroup;
    const std::uint32_t bits =
        kPlaced[0][from[0]] | kPlaced[1][from[1]] | kPlaced[2][from[2]] | kPlaced[3][from[3]];
    if (bits & kNoGroup) break;
    unsigned char* const to = output + groups * kBytesInGroup;
    to[0] = static_cast<unsigned char>(bits >> 16);
    to[1] = static_cast<unsigned char>(bits >> 8);
    to[2] = static_cast<unsigned char>(bits);
  }
  return groups;
}

// Returns the length of the output.
std::size_t decode(const unsigned char* input, std::size_t length, unsigned char* output) {
  std::size_t done = 0;
  for (std::size_t at = 0; at < length;) {
    const std::size_t groups = decodeGroups(input + at, length - at, output + done);
    at += groups * kCharactersInGroup;
    done += groups * kBytesInGroup;
    if (at == length) break;

    std::array<std::uint8_t, kCharactersInGroup> values{};
    std::size_t gathered = 0;
    while (at < length && gathered < values.size()) {
      const std::uint8_t value = kValues[input[at++]];
      if (value != kSkip) values[gathered++] = value;
    }
    if (gathered >= 2) output[done] = static_cast<unsigned char>(values[0] << 2 | values[1] >> 4);
    if (gathered >= 3) {
      output[done + 1] = static_cast<unsigned char>(values[1] << 4 | values[2] >> 2);
    }
    if (gathered >= 4) output[done + 2] = static_cast<unsigned char>(values[2] << 6 | values[3]);
    // Without a gathered character the length drops by one.
    if (done + gathered > 0) done += gathered - 1;
  }
  return done;
}

std::string encodedText(const platform::Data& data, Base64Lines lines) {
  std::size_t length = 0;
  const Base64Buffer<char> text = newBase64Encode(data.data(), data.size(), lines, &length);
  return text ? std::string(text.get(), length) : std::string();
}

}  // namespace

Base64Buffer<char> newBase64Encode(const void* input, std::size_t length, Base64Lines lines,
                                   std::size_t* outputLength) {
  if (outputLength) *outputLength = 0;
  const std::optional<std::size_t> size = encodedSize(length, lines);
  if (!size) return nullptr;
  auto output = allocate<char>(*size);
  if (!output) return nullptr;

  const auto* from = static_cast<const std::uint8_t*>(input);
  char* to = output.get();
  const std::size_t lineBytes = lines == Base64Lines::kSeparate ? kBytesInLine : length;
  std::size_t left = length;
  for (; left > lineBytes; left -= lineBytes, from += lineBytes) {
    to = encodeGroups(from, kGroupsInLine, to);
    to = std::ranges::copy(kLineEnd, to).out;
  }
  const std::size_t groups = left / kBytesInGroup;
  const std::size_t tail = left % kBytesInGroup;
  to = encodeGroups(from, groups, to);
  if (tail != 0) to = encodeTail(from + groups * kBytesInGroup, tail, to);
  *to = '\0';
  if (outputLength) *outputLength = static_cast<std::size_t>(to - output.get());
  return output;
}

Base64Buffer<unsigned char> newBase64Decode(const char* input, std::size_t length,
                                            std::size_t* outputLength) {
  if (outputLength) *outputLength = 0;
  if (!input) length = 0;
  if (length == kBase64ZeroTerminated) length = std::strlen(input);
  // Three bytes for each four characters begun; can't overflow, being less than the length.
  const std::size_t groups = length / kCharactersInGroup + (length % kCharactersInGroup != 0);
  auto output = allocate<unsigned char>(groups * kBytesInGroup);
  if (!output) return nullptr;
  const std::size_t decoded =
      decode(reinterpret_cast<const unsigned char*>(input), length, output.get());
  if (outputLength) *outputLength = decoded;
  return output;
}

namespace Base64 {

platform::Data dataFromBase64String(std::optional<std::string_view> text) {
  if (NSStringExtensions::isNilOrWhiteSpace(text)) return {};
  std::size_t length = 0;
  const auto bytes = newBase64Decode(text->data(), text->size(), &length);
  return platform::Data(bytes.get(), bytes.get() + length);
}

std::string base64EncodedString(const platform::Data& receiver) {
  return encodedText(receiver, Base64Lines::kSeparate);
}

std::string base64EncodedStringWithoutLineBreaks(const platform::Data& receiver) {
  return encodedText(receiver, Base64Lines::kOne);
}

}  // namespace Base64
