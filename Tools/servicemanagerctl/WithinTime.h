#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/Values/Time.h"

// Returns the result of `work`, or nothing if that takes longer than `limit`. It runs on a thread
// of its own, because a call to a disk or a name service that hangs can't be interrupted. The
// thread then stays behind, so `work` owns all that it uses.
template <typename T>
std::optional<T> withinTime(platform::Duration limit, std::function<T()> work) {
  struct Shared {
    std::mutex mutex;
    std::condition_variable ready;
    std::optional<T> result;
  };
  const auto shared = std::make_shared<Shared>();  // The last of the two threads frees it.
  try {
    std::thread([shared, work = std::move(work)] {
      T result = work();
      const std::scoped_lock lock(shared->mutex);
      shared->result = std::move(result);
      shared->ready.notify_one();
    }).detach();
  } catch (const std::system_error&) {
    return std::nullopt;  // The system has no thread left.
  }
  std::unique_lock lock(shared->mutex);
  shared->ready.wait_for(lock, limit, [&] { return shared->result.has_value(); });
  return std::move(shared->result);
}
