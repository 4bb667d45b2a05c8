#pragma once

#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// The value that a JSON text describes, with the limits of property lists (PropertyListLimits.h).
// Null is the null marker. A key that occurs twice, and an integer that 64 bits with a sign can't
// hold, are errors. Errors begin with `name` and the place: "FILE:2:5: ...".
platform::Result<platform::Value> valueOfJson(std::string_view text, std::string_view name);

// Why JSON can't hold the value without a loss: the path of data, a date, or a real that is no
// number, in it. Empty if it can.
std::string lossInJson(const platform::Value& value);
