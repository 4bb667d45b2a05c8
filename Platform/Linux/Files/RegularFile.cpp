#include "Platform/Linux/Files/RegularFile.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
Result<UniqueFd> openRegularFile(const std::string& path) {
  UniqueFd file(retryOnInterrupt([&] {
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  }));
  if (!file && errno == ELOOP) {
    return std::unexpected(Error{ErrorCode::kInvalid, ELOOP,
                                 path + ": is a symbolic link; put the file itself there"});
  }
  if (!file) return std::unexpected(systemError(path, errorCodeOf(errno)));
  struct stat status{};
  if (::fstat(file.get(), &status) != 0) return std::unexpected(systemError(path));
  if (!S_ISREG(status.st_mode)) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, path + ": is not a regular file"});
  }
  return file;
}

Result<std::string> readAtMost(int descriptor, std::size_t maximumBytes, const std::string& name) {
  constexpr std::size_t kChunk = 4096;
  std::string bytes;
  std::size_t filled = 0;
  while (filled < maximumBytes) {
    bytes.resize(std::min(maximumBytes, std::max(2 * filled, kChunk)));
    while (filled < bytes.size()) {
      const ssize_t count = retryOnInterrupt(
          [&] { return ::read(descriptor, bytes.data() + filled, bytes.size() - filled); });
      if (count < 0) return std::unexpected(systemError(name));
      if (count == 0) {
        bytes.resize(filled);
        return bytes;
      }
      filled += static_cast<std::size_t>(count);
    }
  }
  return bytes;
}

Result<std::string> readToEnd(int descriptor, std::size_t maximumBytes, const std::string& name) {
  auto bytes = readAtMost(descriptor, maximumBytes + 1, name);
  if (bytes && bytes->size() > maximumBytes) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0,
                                 fmt::format("{}: is larger than {} bytes", name, maximumBytes)});
  }
  return bytes;
}

}  // namespace platform
