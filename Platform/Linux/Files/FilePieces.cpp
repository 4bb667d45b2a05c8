#include "Platform/Linux/Files/FilePieces.h"

#include <algorithm>
#include <memory>

#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<std::size_t> readAt(int file, std::uint64_t offset, std::span<std::uint8_t> to,
                           const std::string& name) {
  std::size_t filled = 0;
  while (filled < to.size()) {
    const ssize_t count = retryOnInterrupt([&] {
      return ::pread(file, to.data() + filled, to.size() - filled,
                     static_cast<off_t>(offset + filled));
    });
    if (count < 0) return std::unexpected(systemError(name, errorCodeOf(errno)));
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

Result<void> readPieces(int file, std::uint64_t offset, std::uint64_t size, const std::string& name,
                        const TakePiece& take) {
  const auto pieceBytes = static_cast<std::size_t>(std::min<std::uint64_t>(size, kPieceBytes));
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(pieceBytes);
  for (std::uint64_t done = 0; done < size;) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size - done, pieceBytes));
    const auto count = readAt(file, offset + done, {piece.get(), wanted}, name);
    if (!count) return std::unexpected(count.error());
    if (*count < wanted) return invalid(becameShorter(name));
    if (auto taken = take({piece.get(), wanted}); !taken) return taken;
    done += wanted;
  }
  return {};
}

std::string becameShorter(const std::string& name) {
  return name + ": became shorter while it was read";
}

}  // namespace platform
