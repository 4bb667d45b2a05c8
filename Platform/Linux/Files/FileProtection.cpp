#include "Platform/Linux/Files/FileProtection.h"

#include <cstddef>
#include <cstdint>

#include <linux/fs.h>
#include <linux/fsverity.h>
#include <sys/ioctl.h>
#include <sys/statvfs.h>

namespace platform {

Data verityDigestOf(int file) {
  constexpr std::uint16_t kMaximumDigestBytes = 64;  // SHA-512, the longest that there is
  alignas(fsverity_digest) std::uint8_t answer[sizeof(fsverity_digest) + kMaximumDigestBytes] = {};
  auto* const measured = reinterpret_cast<fsverity_digest*>(answer);
  measured->digest_size = kMaximumDigestBytes;
  if (::ioctl(file, FS_IOC_MEASURE_VERITY, measured) != 0) return {};
  const std::uint8_t* const digest = answer + offsetof(fsverity_digest, digest);
  return Data(digest, digest + measured->digest_size);
}

bool isImmutable(int file) {
  struct statvfs system{};
  if (::fstatvfs(file, &system) == 0 && (system.f_flag & ST_RDONLY) != 0) return true;
  int attributes = 0;
  return ::ioctl(file, FS_IOC_GETFLAGS, &attributes) == 0 && (attributes & FS_IMMUTABLE_FL) != 0;
}

}  // namespace platform
