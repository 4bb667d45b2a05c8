#pragma once

#include <cstddef>
#include <string_view>

#include "Platform/Texts/AttributedString.h"

namespace platform {

// The largest document that is read; the parser's time grows faster than the document.
inline constexpr std::size_t kMaxHtmlBytes = 8 * 1024;

// What a reader of an HTML document would see of its text: entities replaced, white space
// collapsed, a line end for each break and around each block; links kept, of a style whether it is
// bold, italic or a heading. Everything of it has a font and a paragraph style. Scripts, styles and
// titles are left out, and nothing is loaded from anywhere.
//
// Any text is a document of HTML. Empty where it has none to see, and for what is larger than
// kMaxHtmlBytes, ill-formed or has a zero byte. Pure; any thread.
AttributedString attributedStringFromHtml(std::string_view html);

}  // namespace platform
