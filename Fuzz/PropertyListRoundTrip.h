#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "Fuzz/Require.h"
#include "Platform/PropertyLists/PropertyList.h"

namespace fuzz {

// Whether the value has at most this many nodes, which are subtracted. A few bytes with shared
// children can mean a million values: reading them is quick, but writing them would use up the
// fuzzer's time.
inline bool isSmall(const platform::Value& value, int& nodesLeft) {
  if (--nodesLeft < 0) return false;
  if (const platform::Array* array = value.array()) {
    for (const platform::Value& element : *array) {
      if (!isSmall(element, nodesLeft)) return false;
    }
  }
  if (const platform::Dictionary* dictionary = value.dictionary()) {
    for (const auto& entry : *dictionary) {
      if (!isSmall(entry.second, nodesLeft)) return false;
    }
  }
  return true;
}

// The rule for every input: either an error names the source and a place, or the value that was
// read can be written and read back unchanged.
inline void checkPropertyList(std::span<const std::uint8_t> bytes,
                              platform::PropertyListFormat format) {
  using namespace platform;
  const Result<Value> value = readPropertyList(bytes, "input");
  if (!value) {
    require(value.error().context.starts_with("input:"), "the error names its source");
    require(value.error().context.find_first_of("\n\r") == std::string::npos, "one line");
    require(value.error().context.size() < 1000, "an error of bounded length");
    return;
  }
  int nodesLeft = 10'000;
  if (!isSmall(*value, nodesLeft)) return;
  const Result<Data> written = writePropertyList(*value, format);
  if (!written) {
    // Indentation and base64 can take it above the limit of bytes; no other error is allowed.
    require(written.error().code == ErrorCode::kExhausted, "what was read can be written");
    return;
  }
  const Result<Value> again = readPropertyList(*written, "written");
  require(again.has_value(), "what was written can be read");
  // Compares the bytes, not the values: a NaN is not equal to itself, and the bytes distinguish
  // values that `==` does not (1 from 1.0 and true, one order of a dictionary from another).
  const Result<Data> writtenAgain = writePropertyList(*again, format);
  require(writtenAgain && *writtenAgain == *written, "what was read back is the same");
}

}  // namespace fuzz
