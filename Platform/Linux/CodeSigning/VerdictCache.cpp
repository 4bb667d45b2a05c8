#include "Platform/Linux/CodeSigning/VerdictCache.h"

#include <algorithm>
#include <utility>

namespace platform {

std::shared_ptr<const VerifiedCode> VerdictCache::find(const std::string& path,
                                                       std::uint64_t anchors, WallTime now) {
  // In seconds, because the times of certificates exceed the range of nanoseconds.
  const auto second = std::chrono::floor<std::chrono::seconds>(now);
  std::shared_ptr<const VerifiedCode> code;
  {
    const std::scoped_lock lock(mutex_);
    const auto found = byPath_.find(path);
    if (found == byPath_.end()) return nullptr;
    const Entries::iterator entry = found->second;
    if (entry->anchors != anchors || second < entry->from || second >= entry->to) {
      forget(entry);
      return nullptr;
    }
    entries_.splice(entries_.begin(), entries_, entry);
    code = entry->code;
  }
  if (std::ranges::all_of(code->facts, &FileFact::stillHolds)) return code;
  const std::scoped_lock lock(mutex_);
  const auto found = byPath_.find(path);
  // Another thread may have stored a new verdict meanwhile.
  if (found != byPath_.end() && found->second->code == code) forget(found->second);
  return nullptr;
}

void VerdictCache::remember(const std::string& path, std::uint64_t anchors, WallTime now,
                            std::shared_ptr<const VerifiedCode> code) {
  const bool settled = std::ranges::none_of(code->facts, [&](const FileFact& fact) {
    return fact.covers == FileFact::Covers::kContents && changedRecently(fact.status, now);
  });
  if (!settled || code->facts.size() > kMaxFacts) return;
  Entry entry{path, anchors, std::chrono::sys_seconds::min(), std::chrono::sys_seconds::max(),
              std::move(code)};
  // If the chain has expired since it signed, the passing of time no longer changes the verdict.
  const VerifiedSignature& signature = entry.code->signature;
  const auto second = std::chrono::floor<std::chrono::seconds>(now);
  if (second >= signature.notBefore && second < signature.notAfter) {
    entry.from = signature.notBefore;
    entry.to = signature.notAfter;
  }
  const std::scoped_lock lock(mutex_);
  if (const auto old = byPath_.find(path); old != byPath_.end()) forget(old->second);
  facts_ += entry.code->facts.size();
  entries_.push_front(std::move(entry));
  byPath_.emplace(entries_.front().path, entries_.begin());
  while (entries_.size() > kMaxVerdicts || facts_ > kMaxFacts) forget(std::prev(entries_.end()));
}

std::size_t VerdictCache::size() const {
  const std::scoped_lock lock(mutex_);
  return entries_.size();
}

void VerdictCache::forget(Entries::iterator entry) {
  facts_ -= entry->code->facts.size();
  byPath_.erase(entry->path);
  entries_.erase(entry);
}

}  // namespace platform
