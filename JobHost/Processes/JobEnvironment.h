#pragma once

#include <string>
#include <vector>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/JobMark.h"

namespace jobhost {

// The environment of a job's process: the dictionary's variables, those that every program expects,
// those of the passed sockets, and the mark. Nothing of the host's own.
class JobEnvironment {
 public:
  JobEnvironment(const JobDefinition& job, const JobAccount& account, bool listens,
                 const JobMark& mark);
  JobEnvironment(const JobEnvironment&) = delete;
  JobEnvironment& operator=(const JobEnvironment&) = delete;

  char* const* variables() const { return pointers_.data(); }
  // The places for the process's number, ten digits at the end of a variable. Null for none.
  char* listenPid() const { return listenPid_; }
  char* markPid() const { return markPid_; }

 private:
  std::vector<std::string> variables_;
  std::vector<char*> pointers_;
  char* listenPid_ = nullptr;
  char* markPid_ = nullptr;
};

}  // namespace jobhost
