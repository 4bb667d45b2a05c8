#pragma once

#include <vantor/Result.h>
#include <vantor/Value.h>

#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

namespace vantor {

// The library's values and errors, made of the platform's.
struct ValueAccess {
  static Value from(const platform::Value& value);
  static platform::Value of(const Value& value);
};

platform::Array platformArray(const Array& values);
Array kitArray(const platform::Array& values);

Error errorOf(const platform::Error& error);
Error errorOf(const platform::NSException& exception);

}  // namespace vantor
