#include "Platform/PropertyLists/PropertyListXmlEncoding.h"

#include <algorithm>
#include <optional>

#include <fmt/core.h>

#include "Platform/Texts/QuotedText.h"
#include "Platform/Texts/Utf8.h"

namespace platform {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::optional<ByteOrder> utf16ByteOrder(std::string_view bytes) {
  using namespace std::string_view_literals;
  if (bytes.starts_with("\xFE\xFF"sv) || bytes.starts_with("\0<\0?"sv)) {
    return ByteOrder::kBigEndian;
  }
  if (bytes.starts_with("\xFF\xFE"sv) || bytes.starts_with("<\0?\0"sv)) {
    return ByteOrder::kLittleEndian;
  }
  return std::nullopt;
}

// The encoding in the XML declaration, empty if there is none.
std::string_view declaredEncoding(std::string_view text) {
  if (!text.starts_with("<?xml")) return {};
  const std::size_t end = text.find("?>");
  if (end == text.npos) return {};  // It is truncated, which is detected later.
  text = text.substr(0, end);
  const std::size_t name = text.find("encoding");
  const std::size_t open = name == text.npos ? name : text.find_first_of("\"'", name);
  if (open == text.npos) return {};
  return text.substr(open + 1, text.find(text[open], open + 1) - open - 1);
}

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  const auto upper = [](char byte) {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
  };
  return std::ranges::any_of(names, [&](std::string_view candidate) {
    return std::ranges::equal(name, candidate, {}, upper);
  });
}

}  // namespace

Result<std::string_view> utf8OfXml(std::span<const std::uint8_t> bytes, std::string_view sourceName,
                                   std::string& converted) {
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto order = utf16ByteOrder(text);
  if (order) {
    auto utf8 = utf8FromUtf16(bytes, *order);
    if (!utf8) {
      return std::unexpected(
          Error{ErrorCode::kInvalid, 0,
                fmt::format("{}: offset {}: ill-formed UTF-16", sourceName, utf8.error())});
    }
    converted = *std::move(utf8);
    text = converted;
  }
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  const auto refuse = [&](std::size_t offset, std::string_view what) {
    return std::unexpected(errorInText(text, offset, sourceName, what));
  };
  if (const auto offset = findIllFormedUtf8(text)) {
    return refuse(*offset, fmt::format("ill-formed UTF-8 (byte 0x{:02x})",
                                       static_cast<unsigned char>(text[*offset])));
  }
  if (const std::size_t nul = text.find('\0'); nul != text.npos) {
    return refuse(nul, "a NUL character, expected well-formed XML");
  }
  const std::string_view encoding = declaredEncoding(text);
  const bool fits =
      encoding.empty() || (order ? isOneOf(encoding, {"UTF-16", "UTF-16LE", "UTF-16BE"})
                                 : isOneOf(encoding, {"UTF-8", "US-ASCII", "ASCII"}));
  if (fits) return text;
  return refuse(0, fmt::format("encoding {}, expected {}", quotedInMessage(encoding),
                               order ? "UTF-16, as the file's bytes are"
                                     : "UTF-8, or UTF-16 with a byte order mark"));
}

}  // namespace platform
