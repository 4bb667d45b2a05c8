#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// Readable sources on real descriptors for a loop with virtual time: they are checked with poll(2),
// which never blocks here.
class PolledSources {
 public:
  using Callback = RunLoop::Callback;

  PolledSources() = default;
  PolledSources(const PolledSources&) = delete;
  PolledSources& operator=(const PolledSources&) = delete;

  // The handle must not outlive this.
  Result<std::unique_ptr<RunLoopHandle>> add(Descriptor descriptor, Urgency urgency,
                                             Callback callback);

  // Calls one source of this urgency that is ready; ready sources take turns. Returns whether there
  // was one.
  bool callOne(Urgency urgency);

  // How many sources of this urgency are ready.
  std::size_t countReady(Urgency urgency) const;

 private:
  class Source;

  // By urgency, then in the order of creation.
  using Key = std::pair<Urgency, std::uint64_t>;
  std::map<Key, Source*> sources_;
  std::uint64_t lastId_ = 0;
  std::uint64_t lastCalled_ = 0;
};

}  // namespace platform
