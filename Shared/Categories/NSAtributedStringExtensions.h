#pragma once

#include <optional>
#include <string_view>

#include "Platform/Texts/AttributedString.h"
#include "Platform/Texts/Range.h"

// Text with hyperlinks. `std::nullopt` is nil. Pure; any thread.
namespace NSAtributedStringExtensions {

using platform::AttributedString;
using platform::NSRange;

// The first anchor element of HTML that begins within `range`: from "<a href" to the end of the
// next
// "</a>", which may lie behind the range; letter case does not matter. Not found (NSNotFound, 0)
// also for nil and for a range that is not within the text.
NSRange rangeOfLink(std::optional<std::string_view> text, NSRange range);

// The text with its anchor elements as links, in the style of what is around them. An anchor that
// has no text to show, or is more than Platform/Texts/HtmlText.h reads, stays as it is written.
// Empty for nil.
AttributedString attributedStringWithHyperLink(std::optional<std::string_view> text);

}  // namespace NSAtributedStringExtensions
