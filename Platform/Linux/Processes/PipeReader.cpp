#include "Platform/Linux/Processes/PipeReader.h"

#include <cstdint>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<std::unique_ptr<PipeReader>> PipeReader::start(std::vector<PipeHandle*> handles) {
  std::erase_if(handles, [](const PipeHandle* handle) { return !handle->hasHandler(); });
  UniqueFd stop(::eventfd(0, EFD_CLOEXEC));
  if (!stop) return std::unexpected(systemError("an event descriptor"));
  std::unique_ptr<PipeReader> reader(new PipeReader(std::move(stop)));
  try {
    reader->thread_ = std::thread(&PipeReader::run, reader.get(), std::move(handles));
  } catch (const std::system_error& error) {
    return std::unexpected(Error{ErrorCode::kExhausted, error.code().value(), "a thread"});
  }
  return reader;
}

PipeReader::~PipeReader() {
  if (!thread_.joinable()) return;
  ::eventfd_write(stop_.get(), 1);
  thread_.join();
}

void PipeReader::run(std::vector<PipeHandle*> handles) {
  std::vector<pollfd> entries;
  for (const PipeHandle* handle : handles) {
    entries.push_back({.fd = handle->reader(), .events = POLLIN, .revents = 0});
  }
  entries.push_back({.fd = stop_.get(), .events = POLLIN, .revents = 0});
  std::size_t open = handles.size();
  while (open > 0) {
    if (retryOnInterrupt([&] { return ::poll(entries.data(), entries.size(), -1); }) < 0) return;
    if (entries.back().revents != 0) return;
    for (std::size_t i = 0; i < handles.size(); ++i) {
      if (entries[i].revents == 0) continue;
      // A pipe stays ready at its end; poll() ignores a negative number.
      if ((entries[i].revents & POLLIN) == 0) {
        entries[i].fd = -1;
        --open;
      }
      handles[i]->callHandler();
    }
  }
}

}  // namespace platform
