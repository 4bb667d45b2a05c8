#pragma once

#include "Platform/Files/ExtendedAttributes.h"

namespace platform {

// Attributes in the "user." name space, where an unprivileged program can write them. Where there
// is no where-from attribute, "user.xdg.origin.url", which download tools write, stands for it.
class LinuxExtendedAttributes final : public ExtendedAttributes {
 public:
  Result<Data> getxattr(const std::string& path, std::string_view name,
                        std::size_t bufferSize) override;
};

}  // namespace platform
