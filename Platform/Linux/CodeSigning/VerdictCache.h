#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Platform/Linux/CodeSigning/VerifiedCode.h"
#include "Platform/Values/Time.h"

namespace platform {

// Caches verdicts on valid code, so that the next check only needs the status of its files. A
// verdict ends if any of its files or folders changes, if the anchors change, and when a
// certificate of its chain expires. Refusals are not cached, because they may depend on missing
// files. Any thread may use it.
//
// A program with a writable mapping of a file can change it a second time without altering its
// times. That requires write permission, and TrustedPlace trusts everybody who has it.
class VerdictCache {
 public:
  // The limits of the cache. The least recently used verdict is dropped first. An evaluation checks
  // the programs of all services in the same order each time, so a cache with less room than they
  // need would remember none of them: there is room for as many as the job host takes jobs.
  static constexpr std::size_t kMaxVerdicts = 16'384;
  static constexpr std::size_t kMaxFacts = 65'536;

  // Null if there is no valid verdict. Takes a system call for each file or folder of the verdict.
  // The verdict is shared by the cache and its callers.
  std::shared_ptr<const VerifiedCode> find(const std::string& path, std::uint64_t anchors,
                                           WallTime now);

  // Stores a verdict that was reached with these anchors, unless a file was changed shortly before
  // `now`, the start of the check.
  void remember(const std::string& path, std::uint64_t anchors, WallTime now,
                std::shared_ptr<const VerifiedCode> code);

  std::size_t size() const;

 private:
  struct Entry {
    std::string path;
    std::uint64_t anchors;
    std::chrono::sys_seconds from;
    std::chrono::sys_seconds to;
    std::shared_ptr<const VerifiedCode> code;
  };
  using Entries = std::list<Entry>;

  void forget(Entries::iterator entry);

  mutable std::mutex mutex_;
  Entries entries_;  // the most recently used first
  std::unordered_map<std::string_view, Entries::iterator> byPath_;
  std::size_t facts_ = 0;
};

}  // namespace platform
