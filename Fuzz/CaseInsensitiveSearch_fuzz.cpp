#include <cstdint>
#include <string_view>

#include "Fuzz/Require.h"
#include "Shared/Categories/CaseInsensitiveSearch.h"
#include "Shared/Categories/NSStringExtensions.h"

// Two texts; the first byte is the length of the first one.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace CaseInsensitiveSearch;
  using fuzz::require;
  if (size == 0) return -1;
  const std::string_view rest(reinterpret_cast<const char*>(bytes + 1), size - 1);
  const std::string_view one = rest.substr(0, bytes[0]);
  const std::string_view other = rest.substr(one.size());
  require(areEqual(one, one), "a text equals itself");
  require(areEqual(one, other) == areEqual(other, one), "whichever comes first");
  if (areEqual(one, other) && !one.empty()) {
    require(isPrefix(one, other) && isSuffix(one, other), "an equal text begins and ends it");
  }
  require(one.empty() || isPrefix(one, one), "a text begins with itself");
  require(!isPrefix("", one) && !isSuffix("", one), "nothing is never found");
  isPrefix(one, other);
  isSuffix(one, other);
  require(NSStringExtensions::isBoolean(one) || !NSStringExtensions::boolValueFor(one),
          "what is true is a boolean");
  NSStringExtensions::unsignedLongLongValue(one);
  NSStringExtensions::isAlphaNumeric(one);
  NSStringExtensions::sha256Hash(one);
  return 0;
}
