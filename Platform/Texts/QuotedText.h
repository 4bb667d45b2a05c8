#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// What a message may quote of a text, and where in the text an error is.

// The text between quotes, on one line and short enough for a log: control characters and
// ill-formed bytes as \xNN, and "..." for what is left out of a long one.
std::string quotedInMessage(std::string_view text);

// The same without the quotes.
std::string shownInMessage(std::string_view text);

// Where a person finds an offset: both from 1, columns in characters.
struct TextPosition {
  std::size_t line = 1;
  std::size_t column = 1;
};
TextPosition positionInText(std::string_view text, std::size_t offset);

// "NAME:LINE:COLUMN: WHAT", of kind kInvalid.
Error errorInText(std::string_view text, std::size_t offset, std::string_view sourceName,
                  std::string_view what);

}  // namespace platform
