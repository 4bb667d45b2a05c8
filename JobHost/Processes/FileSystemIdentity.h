#pragma once

#include <vector>

#include <sys/types.h>

#include "JobHost/Definitions/JobAccount.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// While it lives, this thread reaches files as another account would: with its rights alone, and
// what it makes is that account's. Other threads keep theirs, which is why the library's functions
// won't do: they change all of them. For root.
class FileSystemIdentity {
 public:
  static platform::Result<FileSystemIdentity> assume(const JobAccount& account);

  FileSystemIdentity(FileSystemIdentity&& other) noexcept;
  FileSystemIdentity& operator=(FileSystemIdentity&&) = delete;
  // Going on with anybody else's rights would be worse than an end: what can't be restored aborts.
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
