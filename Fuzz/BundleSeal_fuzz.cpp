#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Fuzz/Require.h"
#include "Platform/Linux/CodeSigning/BundleSeal.h"

// The list of a bundle's content, which is read after its signature, and also while a program is
// checked, which must not be such a list.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace platform;
  const auto seal = readBundleSeal({bytes, size}, "list");
  if (!seal) {
    fuzz::require(seal.error().status == errSecCSBadResource, "a status");
    return 0;
  }
  for (const auto& [path, item] : *seal) {
    const int kinds = !item.sha256.empty() + !item.linkText.empty() + !item.identifier.empty();
    fuzz::require(kinds == 1, "a file, a link or a signed program");
    fuzz::require(item.sha256.empty() || item.sha256.size() == 32, "the size of a digest");
  }
  return 0;
}
