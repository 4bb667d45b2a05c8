#include "Shared/Categories/NSAtributedStringExtensions.h"

#include <cstdint>

#include "Platform/Texts/HtmlText.h"
#include "Shared/Categories/CaseInsensitiveSearch.h"
#include "Shared/Categories/CodePoints.h"

namespace NSAtributedStringExtensions {
namespace {

constexpr std::string_view kAnchorStart = "<a href";
constexpr std::string_view kAnchorEnd = "</a>";

// In bytes.
struct LinkAnchor {
  std::size_t start;
  std::size_t end;
};

// The first anchor that begins at `from` or later and whose beginning ends at `to` at the latest.
std::optional<LinkAnchor> findAnchor(std::string_view text, std::size_t from, std::size_t to) {
  const std::size_t start = CaseInsensitiveSearch::find(kAnchorStart, text.substr(0, to), from);
  if (start == text.npos) return std::nullopt;
  const std::size_t end =
      CaseInsensitiveSearch::find(kAnchorEnd, text, start + kAnchorStart.size());
  if (end == text.npos) return std::nullopt;
  return LinkAnchor{start, end + kAnchorEnd.size()};
}

std::int64_t charactersIn(std::string_view text) {
  return static_cast<std::int64_t>(CodePoints::count(text));
}

}  // namespace

NSRange rangeOfLink(std::optional<std::string_view> text, NSRange range) {
  if (!text || range.location < 0 || range.length < 0) return {};
  const std::int64_t characters = charactersIn(*text);
  if (range.location > characters || range.length > characters - range.location) return {};
  const std::size_t from = CodePoints::offsetOf(static_cast<std::size_t>(range.location), *text);
  const std::size_t to =
      from + CodePoints::offsetOf(static_cast<std::size_t>(range.length), text->substr(from));
  const auto anchor = findAnchor(*text, from, to);
  if (!anchor) return {};
  return {charactersIn(text->substr(0, anchor->start)),
          charactersIn(text->substr(anchor->start, anchor->end - anchor->start))};
}

AttributedString attributedStringWithHyperLink(std::optional<std::string_view> text) {
  AttributedString result;
  if (!text) return result;
  std::size_t position = 0;
  while (position < text->size()) {
    const auto anchor = findAnchor(*text, position, text->size());
    if (!anchor) break;
    result.append(text->substr(position, anchor->start - position), {});
    const std::string_view written = text->substr(anchor->start, anchor->end - anchor->start);
    AttributedString link = platform::attributedStringFromHtml(written);
    link.removeParagraphStyle();
    link.removeFont();
    result.append(link.empty() ? AttributedString(written) : link);
    position = anchor->end;
  }
  result.append(text->substr(position), {});
  return result;
}

}  // namespace NSAtributedStringExtensions
