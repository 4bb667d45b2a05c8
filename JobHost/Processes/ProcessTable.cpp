#include "JobHost/Processes/ProcessTable.h"

#include <cerrno>
#include <cstddef>
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

bool isExecuting(const std::string& stat) {
  // Field 3 follows the name. A process without memory is a zombie or one of the kernel's.
  constexpr int kMemorySize = 23;
  constexpr int kEndOfEnvironment = 51;
  std::string_view fields = stat;
  const std::size_t name = fields.rfind(')');
  if (name == fields.npos) return false;
  fields.remove_prefix(name + 1);
  bool hasMemory = false;
  for (int field = 3; field <= kEndOfEnvironment; ++field) {
    if (!fields.starts_with(' ')) return false;
    fields.remove_prefix(1);
    const std::string_view value = fields.substr(0, fields.find_first_of(" \n"));
    if (field == kMemorySize) hasMemory = value != "0";
    if (field == kEndOfEnvironment) return hasMemory && value == "0";
    fields.remove_prefix(value.size());
  }
  return false;
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
