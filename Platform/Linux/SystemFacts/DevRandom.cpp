#include "Platform/Linux/SystemFacts/DevRandom.h"

#include <fcntl.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {

Result<std::size_t> DevRandom::read(std::span<std::uint8_t> buffer) {
  const UniqueFd device(
      retryOnInterrupt([&] { return ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
  if (!device) return std::unexpected(systemError("opening " + path_));
  std::size_t size = 0;
  while (size < buffer.size()) {
    const ssize_t got = retryOnInterrupt(
        [&] { return ::read(device.get(), buffer.data() + size, buffer.size() - size); });
    if (got <= 0) break;
    size += static_cast<std::size_t>(got);
  }
  return size;
}

}  // namespace platform
