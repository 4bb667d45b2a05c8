#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Fuzz/PropertyListRoundTrip.h"
#include "Fuzz/Require.h"
#include "Platform/PropertyLists/PropertyListPlaces.h"

namespace {

// Whether the places have the shape of the value.
bool isAlike(const platform::PropertyListPlace& place, const platform::Value& value) {
  std::size_t child = 0;
  const auto hasNext = [&](const platform::Value& element) {
    return child < place.children.size() && isAlike(place.children[child++], element);
  };
  if (const platform::Array* array = value.array()) {
    for (const platform::Value& element : *array) {
      if (!hasNext(element)) return false;
    }
  } else if (const platform::Dictionary* dictionary = value.dictionary()) {
    for (const auto& [key, element] : *dictionary) {
      if (!hasNext(element)) return false;
    }
  }
  return child == place.children.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  constexpr std::string_view kMagic = "bplist00";
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  if (text.starts_with(kMagic)) return -1;  // The other target reads it.
  fuzz::checkPropertyList({bytes, size}, platform::PropertyListFormat::kXml);
  const auto places = platform::placesInPropertyList(text);
  if (const auto value = platform::readPropertyList(text, "input")) {
    fuzz::require(places && isAlike(*places, *value), "each value has its place");
  }
  return 0;
}
