#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <pwd.h>

#include "Platform/SystemFacts/SystemInformation.h"

namespace platform {

// The full name in a GECOS field: what stands before the first comma, with the capitalised login
// name for each "&", as is customary; the login name where that is empty.
std::string fullNameOfGecos(std::string_view gecos, std::string_view loginName);

// getpwuid_r(), or what stands for it in a test.
using PasswordLookup = int (*)(uid_t user, passwd* entry, char* buffer, std::size_t size,
                               passwd** result);

// The user with this number, nothing when there is none or the name service can't say. May block on
// the name service. An entry may take up to 1 MiB.
std::optional<UserIdentity> lookUpUser(UserId user, PasswordLookup lookup);

}  // namespace platform
