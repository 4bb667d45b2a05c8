#pragma once

#include "Platform/Values/Value.h"

// How a switch's setting compares with the value that the catalogue expects.
enum class SwitchComparison {
  kMatches,  // the switch asks for its service to run
  kDiffers,
  kRaises,  // the two are of types that can't be compared
  kAbsent,  // the settings have no value
};

// If the expected value is neither a number nor a string, no setting matches it. Pure.
SwitchComparison compareSwitch(const platform::Value& expected, const platform::Value& current);
