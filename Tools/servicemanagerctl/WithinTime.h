#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/Values/Time.h"

// Work on a thread of its own, because a call to a disk or a name service that hangs can't be
// interrupted. The thread then stays behind, so the work owns all that it uses.
template <typename T>
class PendingResult {
 public:
  explicit PendingResult(std::function<T()> work) {
    try {
      std::thread([shared = shared_, work = std::move(work)] {
        T result = work();
        const std::scoped_lock lock(shared->mutex);
        shared->result = std::move(result);
        shared->ready.notify_one();
      }).detach();
    } catch (const std::system_error&) {
      shared_->hasThread = false;
    }
  }

  // False if the system had no thread left for the work, which then has no result.
  bool hasBegun() const { return shared_->hasThread; }

  // Waits for the result until then. Nothing if it has not come. Call it once.
  std::optional<T> by(platform::Instant deadline) {
    if (!hasBegun()) return std::nullopt;
    std::unique_lock lock(shared_->mutex);
    shared_->ready.wait_for(lock, deadline - platform::monotonicTime(),
                            [this] { return shared_->result.has_value(); });
    return std::move(shared_->result);
  }

 private:
  struct Shared {
    bool hasThread = true;
    std::mutex mutex;
    std::condition_variable ready;
    std::optional<T> result;
  };
  // The last of the two threads frees it.
  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};
