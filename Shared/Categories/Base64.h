#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

// Base64 with the standard alphabet and "=" for padding (RFC 4648, basic alphabet). Pure; any
// thread; time is linear.

// Memory to be released by std::free().
struct Base64Free {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using Base64Buffer = std::unique_ptr<T[], Base64Free>;

enum class Base64Lines {
  kOne,
  kSeparate,  // 64 characters each, separated by a carriage return and a line feed
};

// The length of a text that ends with a zero byte.
inline constexpr std::size_t kBase64ZeroTerminated = static_cast<std::size_t>(-1);

// A new zero-terminated text; `outputLength`, if given, gets its length without the zero. Null if
// there is no memory for it, and then `outputLength` is 0.
Base64Buffer<char> newBase64Encode(const void* input, std::size_t length, Base64Lines lines,
                                   std::size_t* outputLength);

// A new buffer with the decoded bytes. Characters outside of the alphabet, "=" among them, are
// skipped; an incomplete group at the end gives one byte for two characters and two for three.
//
// Deliberately, skipped characters after the last complete group take a byte off the length: a
// final line end costs the last byte. The encoder makes no such text. (If there is no byte to take,
// the length is 0.)
//
// Null only if there is no memory for it, and then `outputLength` is 0.
Base64Buffer<unsigned char> newBase64Decode(const char* input, std::size_t length,
                                            std::size_t* outputLength);

// The same for the data class.
namespace Base64 {

// Empty for nil and for white space. Never fails; see newBase64Decode().
platform::Data dataFromBase64String(std::optional<std::string_view> text);

// In lines of 64 characters; without memory the empty text.
std::string base64EncodedString(const platform::Data& receiver);
std::string base64EncodedStringWithoutLineBreaks(const platform::Data& receiver);

}  // namespace Base64
