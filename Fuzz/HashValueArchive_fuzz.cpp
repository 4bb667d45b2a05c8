#include <cstdint>

#include "Fuzz/Require.h"
#include "Shared/Crypto/HashValue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using fuzz::require;
  const auto value = HashValue::unarchive({bytes, size}, "input");
  if (!value) {
    require(
        value.error().context.starts_with("input: ") || value.error().context.starts_with("input:"),
        "the error names its source");
    return 0;
  }
  const auto archive = value->archivedData();
  require(archive && archive->size() <= HashValue::kMaxArchiveBytes, "what was read is archived");
  const auto again = HashValue::unarchive(*archive, "archive");
  require(again && *again == *value, "what was archived is read");
  require(value->copyWithZone().description() == value->description(), "a copy is alike");
  return 0;
}
