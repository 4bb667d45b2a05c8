#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// Quotes from texts in messages, and the positions of errors in texts.

// The text in quotes, on one line and short enough for a log: control characters and ill-formed
// bytes as \xNN, and "..." for the omitted rest of a long text.
std::string quotedInMessage(std::string_view text);

// The same without the quotes.
std::string shownInMessage(std::string_view text);

// The same in quotes and without omitting anything, for a path, which nobody can find if its end is
// missing.
std::string quotedWhole(std::string_view text);

// The position of an offset for people: line and column from 1, columns in characters.
struct TextPosition {
  std::size_t line = 1;
  std::size_t column = 1;
};
TextPosition positionInText(std::string_view text, std::size_t offset);

// An error of kind kInvalid with the text "NAME:LINE:COLUMN: WHAT".
Error errorInText(std::string_view text, std::size_t offset, std::string_view sourceName,
                  std::string_view what);

}  // namespace platform
