#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Values/Value.h"

namespace platform {

// A file whose signature was found valid, in the state that it had then. A program that opens the
// path later can tell by it whether it has found the same file, unchanged.
struct VerifiedFile {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  // The time of the last change of its content, owner, permissions or names, in the file system's
  // clock.
  std::int64_t changedSeconds = 0;
  std::uint32_t changedNanoseconds = 0;
  // False if the file was changed so shortly before the check that another change might have left
  // this time as it was. Then only the digest can tell.
  bool isSettled = false;
  // The digest of the first `digestedBytes`, which are the signed content.
  std::string digestName;
  std::uint64_t digestedBytes = 0;
  Data digest;
  // The file system's own digest of a file that it protects from every change (fs-verity). Empty if
  // it does not.
  Data verity;

  bool operator==(const VerifiedFile&) const = default;
};

// One line of words, for the dictionary of a job.
std::string textOfVerifiedFile(const VerifiedFile& file);
// Nothing if the text is not such a line.
std::optional<VerifiedFile> verifiedFileIn(const std::string& text);

}  // namespace platform
