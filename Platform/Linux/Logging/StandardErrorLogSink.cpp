#include "Platform/Linux/Logging/StandardErrorLogSink.h"

#include <cstddef>
#include <ctime>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/Logging/BlockedSignal.h"
#include "Platform/Linux/Logging/LogSinkText.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

// A pipe takes a write of this size as a whole or not at all.
constexpr std::size_t kLongestLine = 4096;

std::string compose(const LogRecord& record) {
  const timespec now = timeOf(record);
  std::tm local{};
  ::localtime_r(&now.tv_sec, &local);
  std::string line = fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} ", local.tm_year + 1900,
                                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                                 local.tm_sec, now.tv_nsec / 1'000'000);
  appendEscaped(line, record.ident);
  fmt::format_to(std::back_inserter(line), "[{}:{}] ", ::getpid(),
                 record.thread.value_or(static_cast<std::uint32_t>(::gettid())));
  appendEscaped(line, record.message);
  if (line.size() >= kLongestLine) line.resize(kLongestLine - 1);
  line += '\n';
  return line;
}

// Other processes share the descriptor, so it must not be made non-blocking. Poll it first.
ssize_t writeWithoutWaiting(int descriptor, const std::string& line) {
  const ssize_t sent = retryOnInterrupt(
      [&] { return ::send(descriptor, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL); });
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  pollfd room{descriptor, POLLOUT, 0};
  const int ready = retryOnInterrupt([&] { return ::poll(&room, 1, 0); });
  if (ready <= 0) {
    if (ready == 0) errno = EAGAIN;
    return -1;
  }
  return retryOnInterrupt([&] { return ::write(descriptor, line.data(), line.size()); });
}

}  // namespace

StandardErrorLogSink::StandardErrorLogSink(int descriptor)
    : descriptor_(descriptor),
      own_(::open(fmt::format("/proc/self/fd/{}", descriptor).c_str(),
                  O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {}

Result<void> StandardErrorLogSink::write(const LogRecord& record) {
  const std::string line = compose(record);
  BlockedSignal noReader(SIGPIPE);
  const ssize_t written =
      own_ ? retryOnInterrupt([&] { return ::write(own_.get(), line.data(), line.size()); })
           : writeWithoutWaiting(descriptor_, line);
  if (written < 0) {
    const Error error = systemError("write to standard error",
                                    errno == EAGAIN || errno == ENOSPC ? ErrorCode::kExhausted
                                    : errno == EPIPE                   ? ErrorCode::kNotFound
                                                                       : ErrorCode::kSystem);
    if (error.osError == EPIPE) noReader.discard();
    return std::unexpected(error);
  }
  if (static_cast<std::size_t>(written) < line.size())
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0, "a part of a line was written to standard error"});
  return {};
}

}  // namespace platform
