#include "Shared/Categories/NSDictionaryExtensions.h"

#include "Platform/Description.h"

namespace NSDictionaryExtensions {

bool isNilOrEmpty(const platform::Dictionary* dictionary) {
  return !dictionary || dictionary->empty();
}

std::string singleLineDescription(const platform::Dictionary& receiver) {
  return platform::singleLineDescription(receiver);
}

}  // namespace NSDictionaryExtensions
