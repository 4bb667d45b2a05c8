#include "Platform/Linux/Peers/SealedFile.h"

#include <cstdint>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

constexpr int kUnchangeable = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW;

std::unexpected<Error> notSealed(std::string why) {
  return std::unexpected(Error{ErrorCode::kInvalid, 0, "a memory file " + std::move(why)});
}

}  // namespace

Result<UniqueFd> makeSealedFile(std::span<const char> content) {
  UniqueFd file(::memfd_create("peer-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!file) return std::unexpected(systemError("memfd_create", ErrorCode::kExhausted));
  while (!content.empty()) {
    const auto written =
        retryOnInterrupt([&] { return ::write(file.get(), content.data(), content.size()); });
    if (written < 0) return std::unexpected(systemError("writing a memory file"));
    content = content.subspan(static_cast<std::size_t>(written));
  }
  if (::fcntl(file.get(), F_ADD_SEALS, kUnchangeable | F_SEAL_SEAL) != 0) {
    return std::unexpected(systemError("sealing a memory file"));
  }
  return file;
}

Result<std::string> readSealedFile(int descriptor, std::size_t limit) {
  const int seals = ::fcntl(descriptor, F_GET_SEALS);
  if (seals < 0) return notSealed("that is none");
  if ((seals & kUnchangeable) != kUnchangeable) return notSealed("that is not sealed");
  struct stat status{};
  if (::fstat(descriptor, &status) != 0) return std::unexpected(systemError("fstat"));
  if (static_cast<std::uint64_t>(status.st_size) > limit) {
    return notSealed("of more than " + std::to_string(limit) + " bytes");
  }
  // Reads instead of mapping: missing huge pages in a mapping would crash the process.
  std::string content(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t size = 0;
  while (size < content.size()) {
    const auto got = retryOnInterrupt([&] {
      return ::pread(descriptor, content.data() + size, content.size() - size,
                     static_cast<off_t>(size));
    });
    if (got < 0) return std::unexpected(systemError("reading a memory file"));
    if (got == 0) return notSealed("that ends early");
    size += static_cast<std::size_t>(got);
  }
  return content;
}

}  // namespace platform
