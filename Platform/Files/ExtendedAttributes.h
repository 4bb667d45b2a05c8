#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// The sources from which a file was downloaded: a property list with an array of URLs.
inline constexpr std::string_view kWhereFromsAttribute = "com.apple.metadata:kMDItemWhereFroms";

// The extended attributes of files, by the platform's names. Any thread may call it; a call blocks
// only on the disk, and never opens the file.
class ExtendedAttributes {
 public:
  virtual ~ExtendedAttributes() = default;

  // The attribute's bytes, at most `bufferSize` of them; follows symbolic links. A file that a
  // download tool has marked in the system's own way has the where-from attribute, too, whose
  // frame may make it larger than `bufferSize`. Every failure has its errno: ENODATA if there is no
  // such attribute, ERANGE if it is larger, ENOTSUP if the file system has no attributes.
  virtual Result<Data> getxattr(const std::string& path, std::string_view name,
                                std::size_t bufferSize) = 0;
};

}  // namespace platform
