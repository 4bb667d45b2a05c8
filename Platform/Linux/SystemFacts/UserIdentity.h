#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <pwd.h>

#include "Platform/SystemFacts/SystemInformation.h"

namespace platform {

// The full name in a GECOS field: the text before the first comma, in which each "&" stands for the
// capitalised login name, as is customary. If that is empty, the login name.
std::string fullNameOfGecos(std::string_view gecos, std::string_view loginName);

// getpwuid_r(), or a fake in a test.
using PasswordLookup = int (*)(uid_t user, passwd* entry, char* buffer, std::size_t size,
                               passwd** result);

// The user with this number, std::nullopt if there is none or the name service fails. May block on
// the name service. An entry may take up to 1 MiB.
std::optional<UserIdentity> lookUpUser(UserId user, PasswordLookup lookup);

}  // namespace platform
