#pragma once

#include <cstdint>
#include <optional>

#include <sys/types.h>

#include "Platform/RunLoops/RunLoop.h"

namespace jobhost {

// The file that a Unix socket is bound to, also when the file has been renamed.
struct BoundFile {
  std::uint32_t inode = 0;  // the lower 32 bits
  dev_t device = 0;
};

// The device of a number in which the kernel keeps the minor number in the lower 20 bits.
dev_t deviceOfKernel(std::uint32_t number);

// Empty if the socket is not bound to a file, and if the kernel can't tell: it was built without
// unix_diag, or does not let this process ask.
std::optional<BoundFile> boundFileOf(platform::Descriptor socket);

}  // namespace jobhost
