#pragma once

#include <array>
#include <cstddef>
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

  // For urgent sources: collect() asks the system which have become ready, collected() counts those
  // that were not called (some may have been destroyed meanwhile), and callCollected() calls one of
  // them. Each is called once.
  void collect();
  std::size_t collected(Urgency urgency) const;
  bool callCollected(Urgency urgency);

  // Readable while there is an ordinary source to call or an urgent one to collect.
  Descriptor descriptor() const { return set_.descriptor(); }

 private:
  class Source;

  Source* find(std::uint64_t id) const;

  EpollSet set_;
  std::unordered_map<std::uint64_t, Source*> sources_;
  std::uint64_t lastId_ = 0;
  // By Urgency: ids of sources, which may be destroyed meanwhile.
  std::array<std::deque<std::uint64_t>, 3> collected_;
};

}  // namespace platform
