#pragma once

#include "Platform/Values/Value.h"

// Whether two tokens are equal, byte for byte. How long it takes depends on their sizes alone, so
// that nobody finds a token out byte by byte.
bool tokensAreEqual(const platform::Data& one, const platform::Data& other);
