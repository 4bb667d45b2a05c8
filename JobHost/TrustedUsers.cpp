#include "JobHost/TrustedUsers.h"

#include <unistd.h>

#include "JobHost/Definitions/JobAccount.h"

namespace jobhost {

bool TrustedUsers::areMakersOf(const Processes::Marked& marked, const std::string* userName) {
  if (marked.user == 0 || marked.user == ::geteuid()) return true;
  return userName && userOf(*userName) == marked.user;
}

std::optional<platform::UserId> TrustedUsers::userOf(const std::string& name) {
  const auto [entry, isNew] = users_.try_emplace(name);
  if (!isNew) return entry->second;
  if (const auto user = lookUpUser(name)) {
    entry->second = *user;
  } else if (user.error().code != platform::ErrorCode::kNotFound) {
    failure_ = user.error();
  }
  return entry->second;
}

}  // namespace jobhost
