#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Platform/Error.h"

namespace jobhost {

// Whom a job runs as.
struct JobAccount {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;  // supplementary ones, `group` among them
  std::string name;
  std::string home;
  std::string shell;
};

// The account of the user `userName`, or of the user that the host runs as; with the group
// `groupName` in place of its own where one is given. kNotFound, with a text that says which of
// the two, where the system does not know it. May block on the name service.
platform::Result<JobAccount> lookUpAccount(const std::optional<std::string>& userName,
                                           const std::optional<std::string>& groupName);

}  // namespace jobhost
