#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <optional>
#include <string_view>

#include "Platform/Texts/AttributedString.h"
#include "Platform/Texts/Range.h"

// Text with hyperlinks. `std::nullopt` is nil. Pure; any thread.
namespace NSAtributedStringExtensions {

using platform::AttributedString;
using platform::NSRange;

// The first anchor element of HTML that begins within `range`: from "<a href" to the end of the
// next "</a>", which may lie after the range; letter case does not matter. Not found (NSNotFound,
// 0) also for nil and for a range that is not within the text.
NSRange rangeOfLink(std::optional<std::string_view> text, NSRange range);

// The text with its anchor elements as links, in the style of the text around them. An anchor stays
// as it is written if it has no text to show, or exceeds the limits of Platform/Texts/HtmlText.h.
// Empty for nil.
AttributedString attributedStringWithHyperLink(std::optional<std::string_view> text);

}  // namespace NSAtributedStringExtensions
