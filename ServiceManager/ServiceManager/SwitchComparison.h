#pragma once

#include "Platform/Values/Value.h"

enum class SwitchComparison {
  kMatches,
  kDiffers,
  kRaises,  // The two are of kinds that can't be compared.
};

// Compares a switch's value in the catalogue with the one in the settings, which is not nil. Only
// numbers and strings can be expected: nothing matches anything else. Pure.
SwitchComparison compareSwitch(const platform::Value& expected, const platform::Value& current);
