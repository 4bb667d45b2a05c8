#pragma once

#include <string>

#include <sys/types.h>

#include "Platform/Values/Error.h"

namespace platform {

// The numbers of a group and a user by their names. They fail with kNotFound if there is none or
// the name service fails, and may block on it.
Result<gid_t> groupNumber(const std::string& name);
Result<uid_t> userNumber(const std::string& name);

}  // namespace platform
