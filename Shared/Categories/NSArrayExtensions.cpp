#include "Shared/Categories/NSArrayExtensions.h"

#include "Platform/Description.h"

namespace NSArrayExtensions {

bool isNilOrEmpty(const platform::Array* array) { return !array || array->empty(); }

std::string singleLineDescription(const platform::Array& receiver) {
  return platform::singleLineDescription(receiver);
}

}  // namespace NSArrayExtensions
