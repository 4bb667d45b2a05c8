#pragma once

#include <cstddef>
#include <string>

#include <sys/stat.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// This is the one way to open a regular file for reading, in these steps:
//
// 1. findFile() looks the path up, without opening the file. From then on everything concerns the
//    file that was found, whatever happens to the path.
// 2. The kind is checked before the file is opened, because opening a device can set it going, and
//    opening a pipe can block. Other kinds fail with kInvalid.
// 3. The file is opened without blocking. EINTR is retried. If another process has a lease on the
//    file, opening fails with EWOULDBLOCK, and the kernel asks that process to release it; it takes
//    the lease away after /proc/sys/fs/lease-break-time (45 s). See isHeldByALease().
//
// How the content is read is in FilePieces.h.

// Whether a symbolic link at the end of a path is followed. Links before it always are.
enum class FinalLink { kRefuse, kFollow };

// A file of any kind that was found at a path. The descriptor is a handle on the file that can't be
// used for reading.
struct FoundFile {
  UniqueFd handle;
  struct stat status{};
};
Result<FoundFile> findFile(const std::string& path, FinalLink link);

// An open file, and its state when it was found.
struct RegularFile {
  UniqueFd file;
  struct stat status{};

  int get() const { return file.get(); }
};
Result<RegularFile> openFoundFile(const FoundFile& found, const std::string& path);

// Finds and opens a file that another user may have put there. Fails with kNotFound if there is
// none, and with kInvalid if it is not a regular file or, unless it is followed, a symbolic link.
Result<RegularFile> openRegularFile(const std::string& path, FinalLink link = FinalLink::kRefuse);

// Whether opening a file failed because of another process's lease. It can be opened later.
bool isHeldByALease(const Error& error);

// Reads from a descriptor until its end or `maximumBytes`, whichever comes first. `name` is for the
// error's text.
Result<std::string> readAtMost(int descriptor, std::size_t maximumBytes, const std::string& name);

// Reads from a descriptor to its end. Fails with kExhausted if that is more than `maximumBytes`.
Result<std::string> readToEnd(int descriptor, std::size_t maximumBytes, const std::string& name);

}  // namespace platform
