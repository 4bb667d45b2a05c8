#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <sys/types.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// A new file that takes the place of another at once, or leaves no trace.
class ReplacementFile {
 public:
  // An empty file of mode 0600 beside `path`.
  static Result<ReplacementFile> createFor(const std::string& path);

  ReplacementFile(ReplacementFile&& other) noexcept;
  ReplacementFile& operator=(ReplacementFile&&) = delete;
  ~ReplacementFile();

  Result<void> append(std::span<const std::uint8_t> bytes);
  // The first `size` bytes of an open file.
  Result<void> appendFrom(int file, std::uint64_t size);
  // Keeps its own owner where that one is refused.
  Result<void> setOwnerAndMode(uid_t owner, gid_t group, mode_t mode);
  // Waits until the disk has what was appended.
  Result<void> synchronise();
  // Puts the file in place when the disk has it.
  Result<void> commit();

  // Of the new file, before and after it is in place; as long as this lives.
  int descriptor() const { return file_.get(); }

 private:
  ReplacementFile() = default;

  std::string path_;
  std::string temporary_;  // empty once it is in place
  UniqueFd file_;
};

}  // namespace platform
