#pragma once

#include "Platform/Files/ExtendedAttributes.h"

namespace platform {

// Attributes in the "user." name space, which unprivileged programs can write. A file without a
// where-from attribute gets it from "user.xdg.origin.url", which download tools write.
class LinuxExtendedAttributes final : public ExtendedAttributes {
 public:
  Result<Data> getxattr(const std::string& path, std::string_view name,
                        std::size_t bufferSize) override;
};

}  // namespace platform
