#include <algorithm>
#include <cstdint>
#include <string_view>

#include "Fuzz/Require.h"
#include "Shared/Categories/NSAtributedStringExtensions.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace NSAtributedStringExtensions;
  using fuzz::require;
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const AttributedString string = attributedStringWithHyperLink(text);
  const AttributedString::Attributes* last = nullptr;
  for (const AttributedString::Run& run : string.runs()) {
    require(!run.text.empty(), "no run is empty");
    require(!run.attributes.font && !run.attributes.paragraphStyle, "style is that around it");
    require(!last || *last != run.attributes, "neighbours differ");
    last = &run.attributes;
  }
  const auto length = static_cast<std::int64_t>(size);
  const NSRange range = rangeOfLink(text, {0, length});
  // There are at least as many bytes as characters, so the range exceeds some texts.
  const bool isAscii = std::ranges::all_of(
      text, [](char character) { return static_cast<unsigned char>(character) < 0x80; });
  if (range == NSRange{} && isAscii) require(string.string() == text, "without a link, as it is");
  require(range == NSRange{} || (range.location >= 0 && range.length >= 11 &&
                                 range.location + range.length <= length),
          "a link lies within the text");
  return 0;
}
