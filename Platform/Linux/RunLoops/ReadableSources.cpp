#include "Platform/Linux/RunLoops/ReadableSources.h"

#include <array>
#include <utility>

#include <sys/epoll.h>

namespace platform {

namespace {

std::uint32_t eventsOf(Urgency urgency) {
  switch (urgency) {
    case Urgency::kTermination:
    case Urgency::kProcessExit:
      return EPOLLIN | EPOLLONESHOT;
    case Urgency::kConnectionDeath:
      // EPOLLIN is left out: an unread last request does not prove that the peer lives.
      return EPOLLRDHUP | EPOLLONESHOT;
    case Urgency::kOrdinary:
      return EPOLLIN;
  }
  return 0;
}

}  // namespace

class ReadableSources::Source final : public RunLoopHandle {
 public:
  Source(ReadableSources& owner, std::uint64_t id, Descriptor descriptor, Urgency urgency,
         Callback callback)
      : owner_(owner),
        id_(id),
        descriptor_(descriptor),
        urgency_(urgency),
        callback_(std::move(callback)) {
    owner_.sources_.emplace(id_, this);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  ~Source() override {
    leave();
    if (destroyed_ != nullptr) *destroyed_ = true;
  }

  Urgency urgency() const { return urgency_; }

  void run() {
    Callback callback = std::move(callback_);  // It may destroy this source while it runs.
    bool destroyed = false;
    destroyed_ = &destroyed;
    // A one-shot source leaves the set first, because the callback may close its descriptor.
    if (urgency_ != Urgency::kOrdinary) leave();
    callback();
    if (destroyed) return;
    destroyed_ = nullptr;
    if (urgency_ == Urgency::kOrdinary) callback_ = std::move(callback);
  }

 private:
  void leave() {
    if (owner_.sources_.erase(id_) != 0) owner_.set_.remove(descriptor_);
  }

  ReadableSources& owner_;
  const std::uint64_t id_;
  const Descriptor descriptor_;
  const Urgency urgency_;
  Callback callback_;
  bool* destroyed_ = nullptr;  // Non-null while the callback runs; the destructor sets it.
};

Result<std::unique_ptr<RunLoopHandle>> ReadableSources::add(Descriptor descriptor, Urgency urgency,
                                                            Callback callback) {
  const std::uint64_t id = ++lastId_;
  if (auto added = set_.add(descriptor, eventsOf(urgency), id); !added) {
    return std::unexpected(std::move(added.error()));
  }
  return std::make_unique<Source>(*this, id, descriptor, urgency, std::move(callback));
}

bool ReadableSources::callOne() {
  // One at a time, since a callback may read another source's descriptor empty.
  std::array<std::uint64_t, 1> room;
  const auto ready = set_.ready(room);
  Source* source = ready.empty() ? nullptr : find(ready.front());
  if (source == nullptr) return false;
  source->run();
  return true;
}

void ReadableSources::collect() {
  std::array<std::uint64_t, 64> room;
  for (;;) {
    const auto ready = set_.ready(room);
    for (const std::uint64_t id : ready) {
      const Source* source = find(id);
      if (source == nullptr) continue;
      collected_[std::to_underlying(source->urgency())].push_back(id);
    }
    if (ready.size() < room.size()) return;
  }
}

std::size_t ReadableSources::collected(Urgency urgency) const {
  return collected_[std::to_underlying(urgency)].size();
}

bool ReadableSources::callCollected(Urgency urgency) {
  std::deque<std::uint64_t>& collected = collected_[std::to_underlying(urgency)];
  while (!collected.empty()) {
    Source* source = find(collected.front());
    collected.pop_front();
    if (source == nullptr) continue;
    source->run();
    return true;
  }
  return false;
}

ReadableSources::Source* ReadableSources::find(std::uint64_t id) const {
  const auto found = sources_.find(id);
  return found == sources_.end() ? nullptr : found->second;
}

}  // namespace platform
