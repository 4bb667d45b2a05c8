#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <sys/types.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// A new file that replaces another one atomically, or leaves no trace.
class ReplacementFile {
 public:
  // Creates an empty file of mode 0600 beside `path`.
  static Result<ReplacementFile> createFor(const std::string& path);

  ReplacementFile(ReplacementFile&& other) noexcept;
  ReplacementFile& operator=(ReplacementFile&&) = delete;
  ~ReplacementFile();

  Result<void> append(std::span<const std::uint8_t> bytes);
  // Appends the first `size` bytes of an open file.
  Result<void> appendFrom(int file, std::uint64_t size);
  Result<void> setMode(mode_t mode);
  // If the owner can't be set, the file keeps its own.
  Result<void> setOwnerAndMode(uid_t owner, gid_t group, mode_t mode);
  // Blocks until the appended bytes are on the disk.
  Result<void> synchronise();
  // Renames the file to `path` once it is on the disk.
  Result<void> commit();

  // The descriptor of the new file, before and after it is in place; valid as long as this object.
  int descriptor() const { return file_.get(); }

 private:
  ReplacementFile() = default;

  std::string path_;
  std::string temporary_;  // empty once the file is in place
  UniqueFd file_;
};

}  // namespace platform
