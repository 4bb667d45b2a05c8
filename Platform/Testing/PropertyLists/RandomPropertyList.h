#pragma once

#include <random>
#include <string>

#include "Platform/Values/Value.h"

namespace platform {

// Parts of a random list on which not all readers and writers agree.
struct RandomPropertyListOptions {
  bool nullMarkers = false;        // binary only
  bool fractionalDates = false;    // binary only
  bool controlCharacters = false;  // binary only
  bool specialReals = true;        // NaN, infinities, -0
  bool carriageReturns = true;     // others write them unescaped to XML, so that they are lost
  bool onlyRecentDates = false;    // within 60 years from 2001
};

// A nested value of all kinds. The same state of `random` gives the same value.
Value randomPropertyList(std::mt19937& random, const RandomPropertyListOptions& options);

// One line that is equal for two values exactly if a property list must distinguish them: unlike
// for `==`, types, order and every bit count. All NaNs are equal.
//
//   n, true, false, i12, r<bits in hex>, t<bits in hex>, s<hex>, b<hex>, [x,y,], {<hex>:x,}
std::string canonicalText(const Value& value);

}  // namespace platform
