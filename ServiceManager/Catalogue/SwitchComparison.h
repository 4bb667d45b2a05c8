#pragma once

#include "Platform/Values/Value.h"

// How a switch's setting compares with the value that the catalogue expects.
enum class SwitchComparison {
  kMatches,  // the switch asks for its service to run
  kDiffers,
  kRaises,  // the two are of types that can't be compared
  kAbsent,  // the settings have no value
};

// Only a number or a string can be expected: nothing matches anything else. Pure.
SwitchComparison compareSwitch(const platform::Value& expected, const platform::Value& current);
