#pragma once

#include <vector>

#include <sys/types.h>

#include "JobHost/Definitions/JobAccount.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// While it lives, this thread accesses files as another account: with that account's permissions
// alone, and new files belong to it. Other threads keep theirs, so it makes the system calls
// directly: the library's functions change all threads. Needs root.
class FileSystemIdentity {
 public:
  static platform::Result<FileSystemIdentity> assume(const JobAccount& account);

  FileSystemIdentity(FileSystemIdentity&& other) noexcept;
  FileSystemIdentity& operator=(FileSystemIdentity&&) = delete;
  // Aborts if it can't restore the identity: to go on with another user's permissions would be
  // worse.
  ~FileSystemIdentity();

 private:
  FileSystemIdentity() = default;

  void restore();

  bool isAssumed_ = false;
  uid_t user_ = 0;
  gid_t group_ = 0;
  std::vector<gid_t> groups_;
};

}  // namespace jobhost
