#include "Shared/Categories/NSNumberExtensions.h"

#include "Shared/Categories/NSStringExtensions.h"

namespace NSNumberExtensions {

platform::Value booleanTrue() { return true; }

platform::Value booleanFalse() { return false; }

platform::Value booleanForStringValue(std::optional<std::string_view> text) {
  return NSStringExtensions::boolValueFor(text) ? booleanTrue() : booleanFalse();
}

}  // namespace NSNumberExtensions
