#pragma once

#include <cstdint>
#include <optional>

#include <sys/types.h>

#include "Platform/RunLoops/RunLoop.h"

namespace jobhost {

// The file in the file system that a Unix socket is bound to, whatever its name is by now.
struct BoundFile {
  std::uint32_t inode = 0;  // the lower half of its number
  dev_t device = 0;
};

// Nothing where the socket is bound to none, and where the kernel can't tell: it was built without
// the diagnosis of Unix sockets, or keeps this process from asking.
std::optional<BoundFile> boundFileOf(platform::Descriptor socket);

}  // namespace jobhost
