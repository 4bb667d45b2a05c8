#pragma once

#include <string_view>
#include <utility>

#include "Platform/Texts/StringFormat.h"
#include "Platform/Values/Value.h"

// Facts for the reports to the operator.

inline void setIfKnown(platform::Dictionary& facts, std::string_view key, platform::Value value) {
  if (!value.isNil()) facts.set(key, std::move(value));
}

// The release that the service's entry in the catalogue asks for, nil if it asks for none.
inline platform::Value releaseIn(const platform::Value& entry) {
  const platform::Value& version = entry["MinimumOSVersion"];
  return version.isNil() ? platform::Value()
                         : platform::Value(platform::stringWithFormat("%@", version));
}
