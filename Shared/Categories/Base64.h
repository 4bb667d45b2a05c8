#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

// Base64 with the standard alphabet and "=" for padding (RFC 4648, basic alphabet). Pure; any
// thread; time is linear.

// Memory that std::free() takes back.
struct Base64Free {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using Base64Buffer = std::unique_ptr<T[], Base64Free>;

enum class Base64Lines {
  kOne,
  kSeparate,  // of 64 characters each, with a carriage return and a line feed between them
};

// Stands for the length of a text that ends with a zero byte.
inline constexpr std::size_t kBase64ZeroTerminated = static_cast<std::size_t>(-1);

// A new zero-terminated text; `outputLength`, where it is given, gets its length without the zero.
// Null where there is no memory for it, and then `outputLength` is 0.
Base64Buffer<char> newBase64Encode(const void* input, std::size_t length, Base64Lines lines,
                                   std::size_t* outputLength);

// A new buffer of what `input` means. Characters outside of the alphabet, "=" among them, are
// skipped; what is left of an incomplete group gives one byte for two characters and two for three.
//
// Deliberately, characters that are skipped behind the last complete group take a byte off the
// length: a final line end costs the last byte. The encoder makes no such text. (Where there is no
// byte to take, the length is 0.)
//
// Null only where there is no memory for it, and then `outputLength` is 0.
Base64Buffer<unsigned char> newBase64Decode(const char* input, std::size_t length,
                                            std::size_t* outputLength);

// The same on the data class.
namespace Base64 {

// Empty for nil and for white space. Never fails; see newBase64Decode().
platform::Data dataFromBase64String(std::optional<std::string_view> text);

// In lines of 64 characters; without memory the empty text.
std::string base64EncodedString(const platform::Data& receiver);
std::string base64EncodedStringWithoutLineBreaks(const platform::Data& receiver);

}  // namespace Base64
