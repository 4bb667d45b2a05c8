#pragma once

#include <string_view>
#include <vector>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// Sends the bytes over a Unix socket, with the descriptors attached to the first byte. Returns how
// many bytes were sent, or -1 with errno.
long sendWithDescriptors(Descriptor socket, std::string_view bytes,
                         const std::vector<Descriptor>& descriptors);

}  // namespace platform
