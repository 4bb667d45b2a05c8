#include "JobHost/Definitions/JobDefinition.h"

#include <fmt/format.h>

#include "JobHost/Definitions/JobDefinitionLimits.h"
#include "JobHost/Definitions/JobKeys.h"
#include "Platform/Texts/QuotedText.h"
#include "Platform/Texts/Utf8.h"

namespace jobhost {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Error;
using platform::ErrorCode;
using platform::Value;

// Measures a dictionary, and checks that the state file can hold it.
class Measure {
 public:
  Fault take(const Value& value) {
    if (++values_ > kMaximumJobValues) {
      return fmt::format("expected at most {} values, found more", kMaximumJobValues);
    }
    switch (value.type()) {
      case Value::Type::kString:
        return takeText(*value.string());
      case Value::Type::kData:
        return takeBytes(value.data()->size());
      case Value::Type::kArray:
      case Value::Type::kDictionary:
        return takeElements(value);
      case Value::Type::kBoolean:
      case Value::Type::kInteger:
      case Value::Type::kReal:
      case Value::Type::kDate:
        return std::nullopt;
      case Value::Type::kNil:
      case Value::Type::kNullMarker:
      case Value::Type::kRemoteObject:
        break;
    }
    return mismatch("what a property list can hold", value);
  }

 private:
  Fault takeElements(const Value& value) {
    if (depth_ == kMaximumJobDepth) {
      return fmt::format("expected at most {} collections inside one another, found more",
                         kMaximumJobDepth);
    }
    ++depth_;
    if (const Array* array = value.array()) {
      for (const Value& element : *array) {
        if (Fault fault = take(element)) return fault;
      }
    } else {
      for (const auto& [key, element] : *value.dictionary()) {
        if (Fault fault = takeText(key)) return fault;
        if (Fault fault = take(element)) return fault;
      }
    }
    --depth_;
    return std::nullopt;
  }

  Fault takeText(const std::string& text) {
    if (platform::findIllFormedUtf8(text)) {
      return fmt::format("expected UTF-8, found {}", platform::quotedInMessage(text));
    }
    return takeBytes(text.size());
  }

  Fault takeBytes(std::size_t count) {
    bytes_ += count;
    if (bytes_ <= kMaximumJobBytes) return std::nullopt;
    return fmt::format("expected at most {} bytes of text and data, found more", kMaximumJobBytes);
  }

  std::size_t values_ = 0;
  std::size_t bytes_ = 0;
  std::size_t depth_ = 0;
};

// Checks that concern more than one key.
Fault complete(JobDefinition& definition) {
  if (definition.label.empty()) return "key \"Label\": expected a string, found no such key";
  if (definition.program.empty()) {
    if (definition.arguments.empty()) {
      return "key \"Program\": expected an absolute path here or as the first of "
             "\"ProgramArguments\", found neither";
    }
    const std::string& first = definition.arguments.front();
    if (!first.starts_with('/') || first.size() > kMaximumPathBytes) {
      return fmt::format(
          "key \"ProgramArguments\": expected an absolute path of at most {} bytes as the first, "
          "since there is no \"Program\", found {}",
          kMaximumPathBytes, platform::quotedInMessage(first));
    }
    definition.program = first;
  }
  if (definition.arguments.empty()) definition.arguments.push_back(definition.program);
  for (const ResourceLimit& limit : definition.limits) {
    if (limit.soft && limit.hard && *limit.soft > *limit.hard) {
      return fmt::format(
          "key \"SoftResourceLimits\": expected no limit above that of \"HardResourceLimits\", "
          "found {} above {}",
          *limit.soft, *limit.hard);
    }
  }
  return std::nullopt;
}

// "job "LABEL": ", or a text for a dictionary without a label.
std::string prefix(const Value& dictionary) {
  const std::string* label = dictionary["Label"].string();
  return label ? fmt::format("job {}: ", platform::quotedInMessage(*label))
               : "job without a label: ";
}

}  // namespace

platform::Result<JobDefinition> parseJobDefinition(const Value& dictionary) {
  const auto invalid = [&](const std::string& fault) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, prefix(dictionary) + fault});
  };
  const Dictionary* const entries = dictionary.dictionary();
  if (!entries) return invalid(mismatch("a dictionary", dictionary));
  Measure measure;
  if (const Fault fault = measure.take(dictionary)) return invalid(*fault);

  JobDefinition definition;
  for (const auto& [key, value] : *entries) {
    if (const Fault fault = takeJobKey(key, value, definition)) {
      return invalid(fmt::format("key {}: {}", platform::quotedInMessage(key), *fault));
    }
  }
  if (const Fault fault = complete(definition)) return invalid(*fault);
  definition.dictionary = dictionary;
  return definition;
}

}  // namespace jobhost
