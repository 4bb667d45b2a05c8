#include "Platform/Testing/RunLoops/PolledSources.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/stat.h>

namespace platform {

namespace {

// poll(2) reports such descriptors as ready, but the real loop refuses them.
bool canBeWaitedFor(Descriptor descriptor) {
  struct stat status{};
  if (::fstat(descriptor, &status) != 0) return false;
  return !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

bool isUrgent(Urgency urgency) { return urgency != Urgency::kOrdinary; }

short eventsOf(Urgency urgency) {
  return urgency == Urgency::kConnectionDeath ? short{POLLRDHUP} : short{POLLIN};
}

}  // namespace

class PolledSources::Source final : public RunLoopHandle {
 public:
  Source(PolledSources& owner, Key key, Descriptor descriptor, Callback callback)
      : owner_(owner), key_(key), descriptor_(descriptor), callback_(std::move(callback)) {
    owner_.sources_.emplace(key_, this);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  ~Source() override {
    owner_.sources_.erase(key_);
    if (destroyed_ != nullptr) *destroyed_ = true;
  }

  Descriptor descriptor() const { return descriptor_; }

  bool ready() const {
    // A running source is not called recursively.
    if (destroyed_ != nullptr) return false;
    pollfd entry{descriptor_, eventsOf(key_.first), 0};
    return ::poll(&entry, 1, 0) > 0;
  }

  void run() {
    Callback callback = std::move(callback_);  // It may destroy this source while it runs.
    bool destroyed = false;
    destroyed_ = &destroyed;
    if (isUrgent(key_.first)) owner_.sources_.erase(key_);
    callback();
    if (destroyed) return;
    destroyed_ = nullptr;
    if (!isUrgent(key_.first)) callback_ = std::move(callback);
  }

 private:
  PolledSources& owner_;
  const Key key_;
  const Descriptor descriptor_;
  Callback callback_;
  bool* destroyed_ = nullptr;  // Non-null while the callback runs; the destructor sets it.
};

Result<std::unique_ptr<RunLoopHandle>> PolledSources::add(Descriptor descriptor, Urgency urgency,
                                                          Callback callback) {
  const bool taken = std::ranges::any_of(sources_, [&](const auto& entry) {
    return entry.second->descriptor() == descriptor &&
           isUrgent(entry.first.first) == isUrgent(urgency);
  });
  if (taken || !canBeWaitedFor(descriptor)) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, "waiting for descriptor " + std::to_string(descriptor)});
  }
  return std::make_unique<Source>(*this, Key{urgency, ++lastId_}, descriptor, std::move(callback));
}

bool PolledSources::callOne(Urgency urgency) {
  const auto first = sources_.lower_bound({urgency, 0});
  const auto end = sources_.upper_bound({urgency, UINT64_MAX});
  const auto next = sources_.upper_bound({urgency, isUrgent(urgency) ? 0 : lastCalled_});
  for (const auto& [from, to] : {std::pair(next, end), std::pair(first, next)}) {
    const auto ready =
        std::find_if(from, to, [](const auto& entry) { return entry.second->ready(); });
    if (ready == to) continue;
    lastCalled_ = ready->first.second;
    ready->second->run();
    return true;
  }
  return false;
}

std::size_t PolledSources::countReady(Urgency urgency) const {
  const auto first = sources_.lower_bound({urgency, 0});
  const auto end = sources_.upper_bound({urgency, UINT64_MAX});
  const auto ready =
      std::count_if(first, end, [](const auto& entry) { return entry.second->ready(); });
  return static_cast<std::size_t>(ready);
}

}  // namespace platform
