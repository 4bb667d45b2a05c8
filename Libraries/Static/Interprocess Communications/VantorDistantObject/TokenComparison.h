#pragma once

#include "Platform/Values/Value.h"

// Compares two tokens byte by byte. The time depends on their sizes alone, so that no peer can
// guess a token byte by byte.
bool tokensAreEqual(const platform::Data& one, const platform::Data& other);
