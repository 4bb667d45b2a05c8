#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Fuzz/Require.h"
#include "Platform/Linux/Certificates/Revocations.h"

// A file of revoked certificates.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace platform;
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const auto lines = static_cast<std::size_t>(std::ranges::count(text, '\n')) + 1;
  Revocations revocations;
  const auto added = addRevoked(text, revocations);
  if (added) {
    fuzz::require(revocations.certificates.size() <= lines, "one digest a line");
  } else {
    fuzz::require(revocations.certificates.empty(), "nothing is added");
    fuzz::require(added.error() >= 1 && added.error() <= lines, "the number of a line");
  }
  return 0;
}
