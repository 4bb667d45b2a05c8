#include "Platform/Linux/Processes/DataAvailableNotices.h"

#include <algorithm>
#include <utility>

#include <poll.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

void DataAvailableNotices::wait(FileHandle& handle, Descriptor descriptor) {
  if (std::ranges::find(waiting_, &handle, &Waiting::handle) != waiting_.end()) return;
  // If the loop has no room for it, the waits of tasks still serve it.
  auto source = loop_.watchReadable(descriptor, Urgency::kOrdinary,
                                    [this, handle = &handle] { post(handle); });
  waiting_.push_back({&handle, descriptor, source ? std::move(*source) : nullptr});
}

void DataAvailableNotices::forget(const FileHandle& handle) {
  std::erase_if(waiting_, [&](const Waiting& one) { return one.handle == &handle; });
}

void DataAvailableNotices::post(FileHandle* handle) {
  const auto found = std::ranges::find(waiting_, handle, &Waiting::handle);
  if (found == waiting_.end()) return;  // The notice of another handle has removed it.
  // The caller may be its source, so the source is destroyed only at the end.
  const Waiting one = std::move(*found);
  waiting_.erase(found);
  center_.post({NSFileHandleDataAvailableNotification, handle});
}

void DataAvailableNotices::postUntilReadable(Descriptor descriptor) {
  std::vector<pollfd> entries;
  std::vector<FileHandle*> handles;
  for (;;) {
    entries.assign(1, {.fd = descriptor, .events = POLLIN, .revents = 0});
    handles.clear();
    for (const Waiting& one : waiting_) {
      entries.push_back({.fd = one.descriptor, .events = POLLIN, .revents = 0});
      handles.push_back(one.handle);
    }
    if (retryOnInterrupt([&] { return ::poll(entries.data(), entries.size(), -1); }) < 0) return;
    if (entries[0].revents != 0) return;
    for (std::size_t i = 0; i < handles.size(); ++i) {
      if (entries[i + 1].revents != 0) post(handles[i]);
    }
  }
}

}  // namespace platform
