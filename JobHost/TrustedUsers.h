#pragma once

#include <map>
#include <optional>
#include <string>

#include "JobHost/Processes/Processes.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The users whose marks count, for one search. Thousands of processes with marks cost one lookup
// for each user name. May block on the name service.
class TrustedUsers {
 public:
  // Whether the mark is one that this host has made, or that the user of the job may have made.
  // `userName` is the job's, null if it has none. False if the lookup fails.
  bool areMakersOf(const Processes::Marked& marked, const std::string* userName);

  // Why a lookup has failed. Empty if none has. A name that the system does not know is no failure.
  const std::optional<platform::Error>& failure() const { return failure_; }

 private:
  std::optional<platform::UserId> userOf(const std::string& name);

  std::map<std::string, std::optional<platform::UserId>> users_;  // by name
  std::optional<platform::Error> failure_;
};

}  // namespace jobhost
