#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

// Formatted texts in the platform's own notation, so that the code contains the system's messages
// unchanged: C's conversions, and `%@` for an object. A format that does not fit its arguments does
// not compile.
//
//   %d %i       a signed integer of at most 32 bits (with l, ll or z: 64; h and hh cut)
//   %u %x %X %o an unsigned one, likewise
//   %c          a character
//   %f %e %g    a real (and their capitals); %f has six decimals
//   %s          UTF-8 text, zero-terminated where it is a pointer; a null pointer is "(null)"
//   %@          an object, see description() in Platform/Texts/Description.h; text is unchanged;
//               nil and an empty optional are "(null)"
//   %%          a percent sign
//
// Flags, width and precision are those of C; `*` is not accepted.

namespace platform {

// A view of one argument, which must live as long as the full expression that formats it.
class FormatArgument {
 public:
  // `%s` and `%@` distinguish a missing text from an empty one.
  using Text = std::optional<std::string_view>;
  using Held = std::variant<std::int64_t, std::uint64_t, double, Text, const Value*, const NSError*,
                            const NSException*>;

  template <std::integral T>
  FormatArgument(T number) {
    if constexpr (std::is_signed_v<T>) {
      held_ = static_cast<std::int64_t>(number);
    } else {
      held_ = static_cast<std::uint64_t>(number);
    }
  }
  template <std::floating_point T>
  FormatArgument(T number) : held_(static_cast<double>(number)) {}
  FormatArgument(const char* text) : held_(text ? Text(text) : Text()) {}
  FormatArgument(std::string_view text) : held_(Text(text)) {}
  FormatArgument(const std::string& text) : held_(Text(text)) {}
  FormatArgument(const std::optional<std::string>& text) : held_(text ? Text(*text) : Text()) {}
  FormatArgument(const Value& value) : held_(&value) {}
  FormatArgument(const NSError& error) : held_(&error) {}
  FormatArgument(const NSException& exception) : held_(&exception) {}

  const Held& held() const { return held_; }

 private:
  Held held_;
};

namespace format_detail {

enum class Kind { kInteger, kReal, kText, kObject, kTextObject };

struct ArgumentType {
  Kind kind;
  std::size_t size;  // bytes of a number
};

template <typename T>
consteval ArgumentType argumentType() {
  using Plain = std::remove_cvref_t<T>;
  if constexpr (std::integral<Plain>)
    return {Kind::kInteger, sizeof(Plain)};
  else if constexpr (std::floating_point<Plain>)
    return {Kind::kReal, sizeof(Plain)};
  else if constexpr (std::is_same_v<Plain, std::optional<std::string>>)
    return {Kind::kObject, 0};
  else if constexpr (std::is_convertible_v<T, std::string_view>)
    return {Kind::kTextObject, 0};
  else
    return {Kind::kObject, 0};
}

// One conversion of a format, from the character after the percent sign.
struct Conversion {
  std::string_view flags;
  int width = 0;
  int precision = -1;   // -1: none given
  int length = 0;       // -2 hh, -1 h, 0, 1 l, ll or z
  char type = 0;        // 0: the format ends or is ill-formed here
  std::size_t end = 0;  // index after the conversion
};

constexpr Conversion parseConversion(std::string_view format, std::size_t at) {
  const auto peek = [&] { return at < format.size() ? format[at] : '\0'; };
  const auto number = [&] {
    int value = 0;
    // A width of thousands is a mistake, not a request.
    for (; peek() >= '0' && peek() <= '9'; ++at)
      value = value < 1000 ? value * 10 + (peek() - '0') : value;
    return value;
  };
  Conversion conversion;
  const std::size_t flags = at;
  while (std::string_view("-+ #0").find(peek()) != std::string_view::npos && peek() != '\0') ++at;
  conversion.flags = format.substr(flags, at - flags);
  conversion.width = number();
  if (peek() == '.') {
    ++at;
    conversion.precision = number();
  }
  if (peek() == 'h') {
    conversion.length = -1;
    if (++at; peek() == 'h') ++at, conversion.length = -2;
  } else if (peek() == 'l') {
    conversion.length = 1;
    if (++at; peek() == 'l') ++at;
  } else if (peek() == 'z') {
    ++at, conversion.length = 1;
  }
  if (std::string_view("diuxXocfFeEgGs@%").find(peek()) != std::string_view::npos &&
      peek() != '\0') {
    conversion.type = format[at++];
  }
  conversion.end = at;
  return conversion;
}

constexpr bool fits(const Conversion& conversion, ArgumentType argument) {
  switch (conversion.type) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
    case 'c':
      return argument.kind == Kind::kInteger && (conversion.length == 1 || argument.size <= 4);
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
      return argument.kind == Kind::kReal;
    case 's':
      return argument.kind == Kind::kTextObject;
    case '@':
      return argument.kind == Kind::kTextObject || argument.kind == Kind::kObject;
    default:
      return false;
  }
}

// Not constexpr: if the check of a format reaches one of these, its name is the compiler's message.
void theFormatHasAConversionThatIsNotKnown();
void theFormatHasMoreConversionsThanArguments();
void theFormatHasFewerConversionsThanArguments();
void anArgumentDoesNotFitItsConversion();

}  // namespace format_detail

// A format that has been checked to fit arguments of these types.
template <typename... Arguments>
class FormatString {
 public:
  consteval FormatString(const char* format) : text_(format) {
    using namespace format_detail;
    constexpr std::array<ArgumentType, sizeof...(Arguments)> types{argumentType<Arguments>()...};
    std::size_t next = 0;
    for (std::size_t at = text_.find('%'); at != text_.npos; at = text_.find('%', at)) {
      const Conversion conversion = parseConversion(text_, at + 1);
      at = conversion.end;
      if (conversion.type == '%') continue;
      if (conversion.type == 0) theFormatHasAConversionThatIsNotKnown();
      if (next == types.size()) {
        theFormatHasMoreConversionsThanArguments();
      } else if (!fits(conversion, types[next++])) {
        anArgumentDoesNotFitItsConversion();
      }
    }
    if (next != types.size()) theFormatHasFewerConversionsThanArguments();
  }

  constexpr std::string_view text() const { return text_; }

 private:
  std::string_view text_;
};

// The formatted text. For formats that FormatString has not checked: an argument that does not fit
// its conversion is described as by `%@`, a missing one is "(null)", and an ill-formed conversion
// is left unchanged.
std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments);

template <typename... Arguments>
std::string stringWithFormat(FormatString<std::type_identity_t<Arguments>...> format,
                             const Arguments&... arguments) {
  const std::array<FormatArgument, sizeof...(Arguments)> list{FormatArgument(arguments)...};
  return formatArguments(format.text(), list);
}

}  // namespace platform
