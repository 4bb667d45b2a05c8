#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "JobHost/Definitions/JobDefinition.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The account that a job runs as.
struct JobAccount {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;  // supplementary ones, `group` among them
  std::string name;
  std::string home;
  std::string shell;
};

// The account of the user `userName`, or of the user that the host runs as. If `groupName` is
// given, it replaces the user's own group. kNotFound, with a text that says which of the two, if
// the system does not know it. May block on the name service.
platform::Result<JobAccount> lookUpAccount(const std::optional<std::string>& userName,
                                           const std::optional<std::string>& groupName);

// The number of the user alone. Fails and blocks as lookUpAccount().
platform::Result<uid_t> lookUpUser(const std::string& userName);

// Whether the system knows the job's user and group. kInvalid, with a text that names the label,
// the key and the name, if it does not. Another error if the lookup fails. May block on the name
// service.
platform::Result<void> checkAccount(const JobDefinition& job);

}  // namespace jobhost
