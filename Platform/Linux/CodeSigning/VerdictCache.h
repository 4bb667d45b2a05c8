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

// Remembers code that was found valid, so that looking at its files is enough the next time. A
// verdict ends when any of these files or folders is no longer in the state that was seen, when the
// anchors change, and when a certificate of its chain expires. Refusals are not remembered: they
// rest on what is absent as well. Any thread may use it.
//
// A program that maps a file for writing can change it a second time without a trace in its times.
// Only who can write the file at all can do that, and those TrustedPlace trusts.
class VerdictCache {
 public:
  // The bounds of what it keeps. Those unused for longest go first.
  static constexpr std::size_t kMaxVerdicts = 256;
  static constexpr std::size_t kMaxFacts = 65'536;

  // Null where there is none that still stands. A few system calls, one for each file or folder
  // that the verdict rests on. Shared by the cache and by those who were told it.
  std::shared_ptr<const VerifiedCode> find(const std::string& path, std::uint64_t anchors,
                                           WallTime now);

  // Keeps a verdict that was reached with these anchors; `now` is when that check began. Not where
  // a file was changed shortly before.
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
  Entries entries_;  // the last used first
  std::unordered_map<std::string_view, Entries::iterator> byPath_;
  std::size_t facts_ = 0;
};

}  // namespace platform
