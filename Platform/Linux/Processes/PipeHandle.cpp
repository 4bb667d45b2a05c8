#include "Platform/Linux/Processes/PipeHandle.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

// The started program would overwrite a descriptor with the number of a standard file.
UniqueFd aboveStandardFiles(UniqueFd descriptor) {
  if (!descriptor || descriptor.get() > STDERR_FILENO) return descriptor;
  return UniqueFd(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool isAtItsEnd(int reader) {
  pollfd entry{.fd = reader, .events = POLLIN, .revents = 0};
  return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) == 0;
}

}  // namespace

Result<std::unique_ptr<PipeHandle>> PipeHandle::create(DataAvailableNotices& notices,
                                                       bool callsHandlers) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return std::unexpected(systemError("a pipe"));
  std::unique_ptr<PipeHandle> handle(new PipeHandle(notices, callsHandlers));
  // Both ends are owned before one is moved: its old number must not be given to the other.
  UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  handle->reader_ = aboveStandardFiles(std::move(reader));
  if (!handle->reader_) return std::unexpected(systemError("a pipe"));
  handle->writer_ = aboveStandardFiles(std::move(writer));
  if (!handle->writer_) return std::unexpected(systemError("a pipe"));
  // Only this end is non-blocking; the program's end blocks.
  if (::fcntl(handle->reader(), F_SETFL, O_NONBLOCK) != 0) {
    return std::unexpected(systemError("a pipe"));
  }
  return handle;
}

PipeHandle::~PipeHandle() { notices_.forget(*this); }

std::size_t PipeHandle::held() {
  int bytes = 0;
  if (::ioctl(reader(), FIONREAD, &bytes) != 0 || bytes < 0) return 0;
  return static_cast<std::size_t>(bytes);
}

Data PipeHandle::availableData() {
  if (!left_) left_ = held();
  if (*left_ == 0) {
    left_.reset();
    ended_ = ended_ || isAtItsEnd(reader());
    return {};
  }
  Data chunk(std::min(*left_, kMaximumChunk));
  const ssize_t count =
      retryOnInterrupt([&] { return ::read(reader(), chunk.data(), chunk.size()); });
  if (count <= 0) {
    left_.reset();
    return {};
  }
  chunk.resize(static_cast<std::size_t>(count));
  *left_ -= chunk.size();
  return chunk;
}

void PipeHandle::waitForDataInBackgroundAndNotify() {
  if (!ended_) notices_.wait(*this, reader());
}

void PipeHandle::callHandler() {
  left_.reset();
  handler_(*this);
}

void PipeHandle::callHandlerForTheRest() {
  left_ = held();
  // The calls are counted, because a handler need not read.
  for (std::size_t calls = *left_ / kMaximumChunk + 1; calls > 0 && left_.value_or(0) > 0;
       --calls) {
    handler_(*this);
  }
  left_.reset();
}

}  // namespace platform
