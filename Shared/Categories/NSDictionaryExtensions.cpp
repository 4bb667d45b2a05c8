#include "Shared/Categories/NSDictionaryExtensions.h"

#include <utility>

#include <unicode/uchar.h>

#include "Platform/Texts/Description.h"
#include "Shared/Categories/CodePoints.h"

namespace NSDictionaryExtensions {
namespace {

bool isTrueText(std::string_view text) {
  while (!text.empty()) {
    std::size_t behind = 0;
    if (!u_isUWhiteSpace(CodePoints::next(text, behind))) break;
    text.remove_prefix(behind);
  }
  if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
  const std::size_t decisive = text.find_first_not_of('0');
  return decisive != text.npos &&
         std::string_view("YyTt123456789").find(text[decisive]) != std::string_view::npos;
}

}  // namespace

bool isNilOrEmpty(const platform::Dictionary* dictionary) {
  return !dictionary || dictionary->empty();
}

bool boolForKey(const platform::Dictionary& receiver, std::optional<std::string_view> key) {
  if (!key) return false;
  const platform::Value& value = receiver[*key];
  if (const std::string* text = value.string()) return isTrueText(*text);
  return value.isNumber() && value != platform::Value(false);
}

std::string singleLineDescription(const platform::Dictionary& receiver) {
  return platform::singleLineDescription(receiver);
}

std::string compactDescription(const platform::Dictionary& receiver) {
  const char* separator = "";
  std::string text = "{";
  for (const auto& [key, value] : receiver) {
    text += std::exchange(separator, ",\n ");
    text += key;
    text += " : ";
    text += platform::description(value);
  }
  return text += '}';
}

}  // namespace NSDictionaryExtensions
