#include <string_view>

#include "Fuzz/PropertyListRoundTrip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  constexpr std::string_view kMagic = "bplist00";
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  if (text.starts_with(kMagic)) return -1;  // The other target reads it.
  fuzz::checkPropertyList({bytes, size}, platform::PropertyListFormat::kXml);
  return 0;
}
