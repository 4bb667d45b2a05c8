#include "JobHost/Processes/JobMark.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/State/StateReader.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {
namespace {

constexpr std::size_t kHostDigits = 16;
// Behind the time of the start.
constexpr std::string_view kAbandons = ",abandons";
constexpr std::size_t kChunkBytes = 4096;
// The kernel takes no longer variable.
constexpr std::size_t kMaximumVariableBytes = std::size_t{32} * 4096;

template <typename Number>
bool readNumber(std::string_view text, Number& number, int base = 10) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  return error == std::errc() && stop == end;
}

}  // namespace

std::uint64_t hostMark(const std::string& root, std::string_view bootId) {
  std::array<char, PATH_MAX> resolved{};
  const std::string path = root.empty() ? "/" : root;
  struct stat status{};
  // Below one path, containers that share their processes have different folders.
  ::stat(path.c_str(), &status);
  return bootMark(fmt::format("{}\n{}\n{}\n{}", bootId,
                              ::realpath(path.c_str(), resolved.data()) ? resolved.data() : path,
                              status.st_dev, status.st_ino));
}

std::string jobMarkVariable(const JobMark& mark) {
  return fmt::format("{}={:016x}:{}{}:{}:{:010}", kJobMarkVariable, mark.host, mark.startedAt,
                     mark.abandonsGroup ? kAbandons : "", mark.label, mark.leader);
}

std::optional<JobMark> parseJobMark(std::string_view variable) {
  const std::string_view name = kJobMarkVariable;
  if (!variable.starts_with(name)) return std::nullopt;
  variable.remove_prefix(name.size());
  const std::size_t second = variable.find(':', kHostDigits + 2);
  const std::size_t last = variable.rfind(':');
  if (second == variable.npos || last <= second || variable[0] != '=') return std::nullopt;
  if (variable[kHostDigits + 1] != ':') return std::nullopt;
  JobMark mark;
  mark.label = variable.substr(second + 1, last - second - 1);
  std::string_view startedAt = variable.substr(kHostDigits + 2, second - kHostDigits - 2);
  mark.abandonsGroup = startedAt.ends_with(kAbandons);
  if (mark.abandonsGroup) startedAt.remove_suffix(kAbandons.size());
  const bool isRead = readNumber(variable.substr(1, kHostDigits), mark.host, 16) &&
                      readNumber(startedAt, mark.startedAt) &&
                      readNumber(variable.substr(last + 1), mark.leader);
  return isRead ? std::optional(mark) : std::nullopt;
}

MarkReading readJobMark(std::string_view process) {
  const std::string path = fmt::format("/proc/{}/environ", process);
  const platform::UniqueFd file(
      platform::retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  std::string text;
  MarkReading reading;
  while (file) {
    const std::size_t had = text.size();
    text.resize(had + kChunkBytes);
    const ssize_t count = platform::retryOnInterrupt(
        [&] { return ::read(file.get(), text.data() + had, kChunkBytes); });
    text.resize(had + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count > 0) reading.isEmpty = false;
    std::size_t end = 0;
    while ((end = text.find('\0')) != text.npos) {
      reading.mark = parseJobMark(std::string_view(text).substr(0, end));
      if (reading.mark) return reading;
      text.erase(0, end + 1);
    }
    if (count <= 0 || text.size() > kMaximumVariableBytes) break;
  }
  return reading;
}

}  // namespace jobhost
