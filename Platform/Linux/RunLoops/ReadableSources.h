#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>

#include "Platform/Linux/RunLoops/EpollSet.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// The readable sources of a run loop that share one epoll set: the urgent ones or the ordinary
// ones.
class ReadableSources {
 public:
  using Callback = RunLoop::Callback;

  explicit ReadableSources(EpollSet set) : set_(std::move(set)) {}
  ReadableSources(const ReadableSources&) = delete;
  ReadableSources& operator=(const ReadableSources&) = delete;

  // The handle must not outlive this.
  Result<std::unique_ptr<RunLoopHandle>> add(Descriptor descriptor, Urgency urgency,
                                             Callback callback);

  // For ordinary sources: calls one that is readable now; readable sources take turns. Returns
  // whether there was one.
  bool callOne();

  // For urgent sources: collect() asks the system which have become ready, and callCollected()
  // calls one of those. Each is called once.
  void collect();
  bool callCollected(Urgency urgency);

  // Readable while there is a source to collect or to call.
  Descriptor descriptor() const { return set_.descriptor(); }

 private:
  class Source;

  Source* find(std::uint64_t id) const;

  EpollSet set_;
  std::unordered_map<std::uint64_t, Source*> sources_;
  std::uint64_t lastId_ = 0;
  std::deque<std::uint64_t> exits_;  // ids of sources, which may be destroyed meanwhile
  std::deque<std::uint64_t> deaths_;
};

}  // namespace platform
