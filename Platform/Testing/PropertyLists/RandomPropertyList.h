#pragma once

#include <random>
#include <string>

#include "Platform/Values/Value.h"

namespace platform {

// What a list made by chance may contain beside what every reader and writer agrees on.
struct RandomPropertyListOptions {
  bool nullMarkers = false;        // binary only
  bool fractionalDates = false;    // binary only
  bool controlCharacters = false;  // binary only
  bool specialReals = true;        // NaN, infinities, -0
  bool carriageReturns = true;     // others write them to XML as they stand, so that they are lost
  bool onlyRecentDates = false;    // within 60 years from 2001
};

// A value of all kinds, nested, the same for the same state of `random`.
Value randomPropertyList(std::mt19937& random, const RandomPropertyListOptions& options);

// One line that is equal for two values exactly if a property list must keep them apart: types,
// order and every bit count, unlike for `==`. NaNs are all alike.
//
//   n, true, false, i12, r<bits in hex>, t<bits in hex>, s<hex>, b<hex>, [x,y,], {<hex>:x,}
std::string canonicalText(const Value& value);

}  // namespace platform
