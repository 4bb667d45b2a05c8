#pragma once

#include <cstddef>
#include <string_view>

#include "Platform/Texts/AttributedString.h"

namespace platform {

// The largest accepted document, because the parser's time grows faster than the size.
inline constexpr std::size_t kMaxHtmlBytes = 8 * 1024;

// The visible text of an HTML document: entities are replaced, white space is collapsed, and there
// is a line end for each break and around each block. It keeps links and whether text is bold,
// italic or a heading. All of the text has a font and a paragraph style. Scripts, styles and titles
// are left out, and nothing is loaded from anywhere.
//
// Any text is an HTML document. The result is empty if nothing is visible, and if the document is
// larger than kMaxHtmlBytes, is ill-formed or contains a zero byte. Pure; any thread may call it.
AttributedString attributedStringFromHtml(std::string_view html);

}  // namespace platform
