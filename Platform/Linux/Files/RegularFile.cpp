#include "Platform/Linux/Files/RegularFile.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<FoundFile> findFile(const std::string& path, FinalLink link) {
  const int follow = link == FinalLink::kRefuse ? O_NOFOLLOW : 0;
  FoundFile found;
  found.handle =
      UniqueFd(retryOnInterrupt([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC | follow); }));
  if (!found.handle || ::fstat(found.handle.get(), &found.status) != 0) {
    return std::unexpected(systemError(path, errorCodeOf(errno)));
  }
  return found;
}

Result<RegularFile> openFoundFile(const FoundFile& found, const std::string& path) {
  if (S_ISLNK(found.status.st_mode)) {
    return std::unexpected(Error{ErrorCode::kInvalid, ELOOP,
                                 path + ": is a symbolic link; put the file itself there"});
  }
  if (!S_ISREG(found.status.st_mode)) return invalid(path + ": is not a regular file");
  const std::string handle = pathOfDescriptor(found.handle);
  RegularFile opened{UniqueFd(retryOnInterrupt([&] {
                       return ::open(handle.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
                     })),
                     found.status};
  if (!opened.file) return std::unexpected(systemError(path, errorCodeOf(errno)));
  return opened;
}

Result<RegularFile> openRegularFile(const std::string& path, FinalLink link) {
  const auto found = findFile(path, link);
  if (!found) return std::unexpected(found.error());
  return openFoundFile(*found, path);
}

bool isHeldByALease(const Error& error) { return error.osError == EWOULDBLOCK; }

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
