#include "Platform/Linux/BackgroundServices/ServiceNotify.h"

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <system_error>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr char kVariable[] = "NOTIFY_SOCKET";
constexpr char kWatchdogTime[] = "WATCHDOG_USEC";
constexpr char kWatchdogProcess[] = "WATCHDOG_PID";
constexpr std::chrono::seconds kAnnounceTimeout(1);

struct SocketAddress {
  sockaddr_un address;
  socklen_t size;
};

std::optional<SocketAddress> socketAddress(const std::string& text) {
  SocketAddress socket{};
  sockaddr_un& address = socket.address;
  const bool abstract = text.starts_with('@');
  // A path ends with a zero byte. An abstract name begins with one, which replaces the "@".
  const std::size_t room = sizeof address.sun_path - (abstract ? 0 : 1);
  if (text.size() < 2 || text.size() > room || (!abstract && !text.starts_with('/'))) {
    return std::nullopt;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, text.data(), text.size());
  if (abstract) address.sun_path[0] = '\0';
  socket.size =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + (abstract ? 0 : 1));
  return socket;
}

std::optional<std::uint64_t> numberIn(const char* variable) {
  const char* const value = std::getenv(variable);
  if (!value) return std::nullopt;
  std::uint64_t number = 0;
  const char* const end = value + std::strlen(value);
  const auto [stop, error] = std::from_chars(value, end, number);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

// The time of the watchdog, if it is this process's.
std::chrono::microseconds watchdogInEnvironment() {
  constexpr std::uint64_t kMost = std::uint64_t{1} << 50;  // some 35 years
  const auto time = numberIn(kWatchdogTime);
  if (!time || *time > kMost) return {};
  const auto process = numberIn(kWatchdogProcess);
  if (process && *process != static_cast<std::uint64_t>(::getpid())) return {};
  return std::chrono::microseconds(*time);
}

}  // namespace

ServiceNotify ServiceNotify::takeFromEnvironment() {
  const char* const value = std::getenv(kVariable);
  std::string address = value ? value : "";
  const std::chrono::microseconds watchdog = watchdogInEnvironment();
  for (const char* variable : {kVariable, kWatchdogTime, kWatchdogProcess}) ::unsetenv(variable);
  return {std::move(address), kAnnounceTimeout, watchdog};
}

void ServiceNotify::returnToEnvironment() const {
  if (!address_.empty()) ::setenv(kVariable, address_.c_str(), 1);
  if (watchdogTime_.count() == 0) return;
  ::setenv(kWatchdogTime, std::to_string(watchdogTime_.count()).c_str(), 1);
  ::setenv(kWatchdogProcess, std::to_string(::getpid()).c_str(), 1);
}

Result<void> ServiceNotify::announceReloading() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
  return send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds.count()));
}

Result<void> ServiceNotify::announceStatus(std::string_view status) {
  return send("STATUS=" + std::string(status.substr(0, status.find('\n'))), Wait::kNever);
}

Result<void> ServiceNotify::announceAlive(std::string_view state) {
  return send("WATCHDOG=1\nSTATUS=" + std::string(state), Wait::kNever);
}

Result<void> ServiceNotify::send(std::string_view message, Wait wait) const {
  if (address_.empty()) return {};
  const std::string context = std::string(kVariable) + " \"" + address_ + "\"";
  const auto target = socketAddress(address_);
  if (!target) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0,
                                 context + ": expected an absolute path, or @ and a name, of at "
                                           "most 107 bytes"});
  }
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return std::unexpected(systemError(context));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout_);
  const timeval timeout{.tv_sec = seconds.count(),
                        .tv_usec = std::chrono::microseconds(timeout_ - seconds).count()};
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
    return std::unexpected(systemError(context));
  }
  const int flags = MSG_NOSIGNAL | (wait == Wait::kNever ? MSG_DONTWAIT : 0);
  const ssize_t sent = retryOnInterrupt([&] {
    return ::sendto(socket.get(), message.data(), message.size(), flags,
                    reinterpret_cast<const sockaddr*>(&target->address), target->size);
  });
  if (sent < 0) return std::unexpected(systemError(context));
  return {};
}

}  // namespace platform
