#include <cstddef>
#include <cstdint>
#include <string>

#include "Fuzz/Require.h"
#include "Platform/Values/VerifiedFile.h"

// The state of a verified file, as a job's dictionary has it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace platform;
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  const auto file = verifiedFileIn(text);
  if (!file) return 0;
  fuzz::require(file->digestedBytes <= file->size, "no more is signed than there is");
  fuzz::require(verifiedFileIn(textOfVerifiedFile(*file)) == file, "the text is read back");
  return 0;
}
