#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>

#include "Platform/Linux/RunLoops/EpollSet.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// The readable sources of a run loop that are of equal rank in one respect: they are asked together
// which of them is ready.
class ReadableSources {
 public:
  using Callback = RunLoop::Callback;

  explicit ReadableSources(EpollSet set) : set_(std::move(set)) {}
  ReadableSources(const ReadableSources&) = delete;
  ReadableSources& operator=(const ReadableSources&) = delete;

  // The handle must not outlive this.
  Result<std::unique_ptr<RunLoopHandle>> add(Descriptor descriptor, Urgency urgency,
                                             Callback callback);

  // Ordinary sources: calls back one that is readable at this moment, each in its turn. Whether
  // there was one.
  bool callOne();

  // Urgent sources: asks the system which have become ready, and calls back one of those found so
  // far; each is found once.
  void collect();
  bool callCollected(Urgency urgency);

  // Readable while there is something to collect or to call.
  Descriptor descriptor() const { return set_.descriptor(); }

 private:
  class Source;

  Source* find(std::uint64_t id) const;

  EpollSet set_;
  std::unordered_map<std::uint64_t, Source*> sources_;
  std::uint64_t lastId_ = 0;
  std::deque<std::uint64_t> exits_;  // ids, which may have gone meanwhile
  std::deque<std::uint64_t> deaths_;
};

}  // namespace platform
