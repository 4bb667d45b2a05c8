#include "JobHost/Processes/ProcessTable.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {

using platform::retryOnInterrupt;

std::uint64_t startTicksNow() {
  timespec now{};  // with the time of suspensions, as the kernel counts start times
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  const auto ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
  return static_cast<std::uint64_t>(now.tv_sec) * ticksPerSecond +
         static_cast<std::uint64_t>(now.tv_nsec) * ticksPerSecond / 1'000'000'000;
}

std::optional<std::string> statOf(std::string_view process) {
  const std::string path = fmt::format("/proc/{}/stat", process);
  const platform::UniqueFd file(
      retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  char text[1024];
  const ssize_t size =
      file ? retryOnInterrupt([&] { return ::read(file.get(), text, sizeof text); }) : -1;
  if (size < 0 && platform::isShortage(errno)) return std::nullopt;
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

std::optional<platform::ProcessMembership> membershipIn(const std::string& stat) {
  const auto membership = platform::parseProcessMembership(stat);
  if (!membership || membership->state == 'X') return std::nullopt;
  // The state is that of the first thread only, which may end before the others.
  if (membership->state == 'Z' && membership->threads <= 1) return std::nullopt;
  return *membership;
}

bool eachProcess(
    const std::function<bool(std::string_view number, const std::string& stat)>& each) {
  bool isRead = true;
  const auto read = platform::eachNameInFolder("/proc", [&](std::string_view name) {
    if (name.front() < '1' || name.front() > '9') return true;
    const auto stat = statOf(name);
    isRead = stat.has_value();
    return isRead && each(name, *stat);
  });
  return isRead && read;
}

}  // namespace jobhost
