#include "Tools/servicemanagerctl/TimeWords.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sstream>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

constexpr std::size_t kMostStatBytes = 4096;
// The field of the start in the file; the third one is the first behind the command's name.
constexpr int kFieldsBeforeStart = 22 - 3;

std::int64_t ticksSinceBoot(std::int64_t ticksPerSecond) {
  timespec now{};  // with the time of suspensions, as the kernel counts start times
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec * ticksPerSecond + now.tv_nsec * ticksPerSecond / 1'000'000'000;
}

}  // namespace

std::string ageInWords(Duration age) {
  using namespace std::chrono_literals;
  age = std::max(age, Duration::zero());
  if (age < 2min) return fmt::format("{} s", age / 1s);
  if (age < 2h) return fmt::format("{} min", age / 1min);
  if (age < 48h) return fmt::format("{} h", age / 1h);
  return fmt::format("{} d", age / 24h);
}

std::string timeAsText(WallTime time) { return jsonOf(Value(dateAt(time))).get<std::string>(); }

std::optional<WallTime> startInStat(const std::string& stat, std::int64_t ticksNow,
                                    std::int64_t ticksPerSecond, WallTime now) {
  // The command's name may hold any bytes, also parentheses.
  const std::size_t nameEnd = stat.rfind(')');
  if (nameEnd == stat.npos) return std::nullopt;
  std::istringstream rest(stat.substr(nameEnd + 1));
  std::string field;
  for (int i = 0; i < kFieldsBeforeStart; ++i) rest >> field;
  std::int64_t start = 0;
  if (!(rest >> start) || start < 0 || start > ticksNow) return std::nullopt;
  const std::int64_t milliseconds = (ticksNow - start) * 1000 / ticksPerSecond;
  return now - std::chrono::milliseconds(milliseconds);
}

std::optional<WallTime> startOfProcess(ProcessId process, WallTime now) {
  const std::string path = fmt::format("/proc/{}/stat", process);
  const auto file = openRegularFile(path);
  if (!file) return std::nullopt;
  const auto stat = readAtMost(file->get(), kMostStatBytes, path);
  if (!stat) return std::nullopt;
  const std::int64_t ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  return startInStat(*stat, ticksSinceBoot(ticksPerSecond), ticksPerSecond, now);
}
