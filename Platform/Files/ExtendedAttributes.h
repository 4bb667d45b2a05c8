#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Where a file was downloaded from: a property list with an array of URLs.
inline constexpr std::string_view kWhereFromsAttribute = "com.apple.metadata:kMDItemWhereFroms";

// The attributes of files beside their content, by the platform's names. Any thread; a call blocks
// on the disk alone, and never opens the file.
class ExtendedAttributes {
 public:
  virtual ~ExtendedAttributes() = default;

  // The attribute's bytes, `bufferSize` of them at most, of what `path` leads to. A file that a
  // download tool has marked in the system's own way has the where-from attribute, too. Every
  // failure has its errno: ENODATA without such an attribute, ERANGE for a larger one, ENOTSUP
  // where there are none.
  virtual Result<Data> getxattr(const std::string& path, std::string_view name,
                                std::size_t bufferSize) = 0;
};

}  // namespace platform
