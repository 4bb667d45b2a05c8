#include "Shared/Categories/NSArrayExtensions.h"

#include <algorithm>
#include <utility>

#include "Platform/Texts/Description.h"
#include "Shared/Categories/NSStringExtensions.h"

namespace NSArrayExtensions {
namespace {

using platform::Array;
using platform::Value;

// The value's entry under `key`, or the entries of all its elements.
Value valueForKey(const Value& holder, std::string_view key) {
  const Array* array = holder.array();
  if (!array) return holder[key];
  Array values;
  values.reserve(array->size());
  for (const Value& element : *array) values.push_back(valueForKey(element, key));
  return values;
}

// Whether no further key can find a value in it.
bool isWithoutValue(const Value& value) {
  const Array* array = value.array();
  if (!array) return value.isNil() || value.type() == Value::Type::kNullMarker;
  return std::ranges::all_of(*array, isWithoutValue);
}

// Stops at the last value, however many keys follow: a path may have any number of keys.
Value valueForKeyPath(Value value, std::string_view keyPath) {
  for (;;) {
    const std::size_t dot = keyPath.find('.');
    value = valueForKey(value, keyPath.substr(0, dot));
    if (dot == keyPath.npos || value.isNil()) return value;
    if (value.array() && isWithoutValue(value)) return value;
    keyPath.remove_prefix(dot + 1);
  }
}

}  // namespace

bool isNilOrEmpty(const Array* array) { return !array || array->empty(); }

Array objectsForKeyPath(const Array& receiver, std::optional<std::string_view> keyPath) {
  Array objects;
  if (NSStringExtensions::isNilOrWhiteSpace(keyPath)) return objects;
  for (const Value& element : receiver) {
    Value object = valueForKeyPath(element, *keyPath);
    if (!object.isNil()) objects.push_back(std::move(object));
  }
  return objects;
}

std::string singleLineDescription(const Array& receiver) {
  return platform::singleLineDescription(receiver);
}

std::string compactDescription(const Array& receiver) {
  const char* separator = "";
  std::string text = "[";
  for (const Value& element : receiver) {
    text += std::exchange(separator, ",\n ");
    text += platform::description(element);
  }
  return text += ']';
}

}  // namespace NSArrayExtensions
