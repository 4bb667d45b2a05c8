#pragma once

#include <string_view>
#include <utility>

#include "Platform/Values/Value.h"

// Facts for the reports to the operator.

inline void setIfKnown(platform::Dictionary& facts, std::string_view key, platform::Value value) {
  if (!value.isNil()) facts.set(key, std::move(value));
}
