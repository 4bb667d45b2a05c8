#include "Platform/PropertyLists/PropertyListWritable.h"

#include <optional>
#include <vector>

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Platform/Texts/QuotedText.h"
#include "Platform/Texts/Utf8.h"

namespace platform {
namespace {

class WritableCheck {
 public:
  explicit WritableCheck(PropertyListFormat format) : format_(format) {}

  std::optional<Error> check(const Value& value);

 private:
  // One step from a collection to its content: a key, or an index if there is no key.
  struct Step {
    const std::string* key = nullptr;
    std::size_t index = 0;
  };

  std::optional<Error> checkElements(const Array& array);
  std::optional<Error> checkEntries(const Dictionary& dictionary);
  std::optional<Error> checkText(const std::string& text, std::string_view what);
  std::optional<Error> count(std::size_t contentBytes);
  Error error(std::string_view text, ErrorCode code = ErrorCode::kInvalid) const;

  PropertyListFormat format_;
  std::vector<Step> path_;
  std::size_t nodes_ = 0;
  std::size_t contentBytes_ = 0;
};

std::optional<Error> WritableCheck::check(const Value& value) {
  const bool xml = format_ == PropertyListFormat::kXml;
  switch (value.type()) {
    case Value::Type::kNil:
      return error("nil, expected a value");
    case Value::Type::kRemoteObject:
      return error("a remote object, which no property list can hold");
    case Value::Type::kNullMarker:
      return xml ? error("the null marker, which XML property lists can't hold") : count(0);
    case Value::Type::kBoolean:
    case Value::Type::kInteger:
    case Value::Type::kReal:
      return count(0);
    case Value::Type::kDate:
      if (isWithinPropertyListDates(value.date()->secondsSinceReferenceDate)) return count(0);
      return error(fmt::format("a date {} s from 2001, expected one of the years 1 to 9999",
                               textFromReal(value.date()->secondsSinceReferenceDate)));
    case Value::Type::kString:
      return checkText(*value.string(), "a string");
    case Value::Type::kData:
      return count(value.data()->size());
    case Value::Type::kArray:
      return checkElements(*value.array());
    case Value::Type::kDictionary:
      return checkEntries(*value.dictionary());
  }
  return error("no value");
}

std::optional<Error> WritableCheck::checkElements(const Array& array) {
  if (auto error = count(0)) return error;
  if (path_.size() == kMaxPropertyListDepth) {
    return error(fmt::format("more than {} collections inside one another", kMaxPropertyListDepth),
                 ErrorCode::kExhausted);
  }
  path_.emplace_back();
  for (const Value& element : array) {
    if (auto error = check(element)) return error;
    ++path_.back().index;
  }
  path_.pop_back();
  return std::nullopt;
}

std::optional<Error> WritableCheck::checkEntries(const Dictionary& dictionary) {
  if (auto error = count(0)) return error;
  if (path_.size() == kMaxPropertyListDepth) {
    return error(fmt::format("more than {} collections inside one another", kMaxPropertyListDepth),
                 ErrorCode::kExhausted);
  }
  path_.emplace_back();
  for (const auto& [key, value] : dictionary) {
    path_.back().key = &key;
    if (auto error = checkText(key, "a key")) return error;
    if (auto error = check(value)) return error;
  }
  path_.pop_back();
  return std::nullopt;
}

std::optional<Error> WritableCheck::checkText(const std::string& text, std::string_view what) {
  if (auto error = count(text.size())) return error;
  if (const auto offset = findIllFormedUtf8(text)) {
    return error(fmt::format("{} with ill-formed UTF-8 at byte {}", what, *offset));
  }
  if (format_ == PropertyListFormat::kBinary) return std::nullopt;
  if (const auto offset = findCharacterXmlExcludes(text)) {
    return error(fmt::format("{} with a character at byte {} that XML excludes", what, *offset));
  }
  return std::nullopt;
}

std::optional<Error> WritableCheck::count(std::size_t contentBytes) {
  contentBytes_ += contentBytes;
  if (++nodes_ > kMaxPropertyListNodes) {
    return error(fmt::format("more than {} values and keys", kMaxPropertyListNodes),
                 ErrorCode::kExhausted);
  }
  if (contentBytes_ > kMaxPropertyListContentBytes) {
    return error(
        fmt::format("more than {} bytes of strings and data", kMaxPropertyListContentBytes),
        ErrorCode::kExhausted);
  }
  return std::nullopt;
}

Error WritableCheck::error(std::string_view text, ErrorCode code) const {
  std::string path;
  for (const Step& step : path_) {
    if (!path.empty()) path += '/';
    path += step.key ? shownInMessage(*step.key) : fmt::format("{}", step.index);
  }
  if (path.empty()) path = "the property list's root";
  return Error{code, 0, fmt::format("{}: {}", path, text)};
}

}  // namespace

Result<void> checkWritable(const Value& value, PropertyListFormat format) {
  auto error = WritableCheck(format).check(value);
  if (error) return std::unexpected(*std::move(error));
  return {};
}

}  // namespace platform
