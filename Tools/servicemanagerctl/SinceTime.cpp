#include "Tools/servicemanagerctl/SinceTime.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

using namespace platform;

namespace {

constexpr std::int64_t kMostOfUnit = 1'000'000;

// Further seconds do not fit into the clock's nanoseconds.
constexpr std::int64_t kMostSeconds = 9'000'000'000;

WallTime atSeconds(std::int64_t seconds) {
  return WallTime(std::chrono::seconds(std::clamp<std::int64_t>(seconds, 0, kMostSeconds)));
}

std::tm localTime(WallTime time) {
  const std::time_t seconds =
      std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
  std::tm local{};
  ::localtime_r(&seconds, &local);
  return local;
}

std::optional<Duration> unitNamed(std::string_view name) {
  using namespace std::chrono_literals;
  constexpr std::pair<std::string_view, Duration> kUnits[] = {
      {"s", 1s},      {"sec", 1s},       {"second", 1s},     {"seconds", 1s},   {"m", 1min},
      {"min", 1min},  {"mins", 1min},    {"minute", 1min},   {"minutes", 1min}, {"h", 1h},
      {"hour", 1h},   {"hours", 1h},     {"d", 24h},         {"day", 24h},      {"days", 24h},
      {"w", 7 * 24h}, {"week", 7 * 24h}, {"weeks", 7 * 24h},
  };
  for (const auto& [unit, duration] : kUnits) {
    if (unit == name) return duration;
  }
  return std::nullopt;
}

// "10 min ago", "90s ago".
std::optional<WallTime> ago(std::string_view text, WallTime now) {
  constexpr std::string_view kAgo = " ago";
  if (!text.ends_with(kAgo)) return std::nullopt;
  text.remove_suffix(kAgo.size());
  std::int64_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || count < 0 || count > kMostOfUnit) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  while (text.starts_with(' ')) text.remove_prefix(1);
  const auto unit = unitNamed(text);
  if (!unit || count > now.time_since_epoch() / *unit) return std::nullopt;
  return now - *unit * count;
}

// The time by strptime() with the format, for the fields that it names.
bool isParsed(const std::string& text, const char* format, std::tm& fields) {
  const char* const end = ::strptime(text.c_str(), format, &fields);
  return end && *end == '\0';
}

WallTime atLocal(std::tm fields) {
  fields.tm_isdst = -1;
  return atSeconds(::mktime(&fields));
}

std::optional<WallTime> timeOfDay(const std::string& text, WallTime now) {
  for (const char* const format : {"%H:%M:%S", "%H:%M"}) {
    std::tm fields = localTime(now);
    fields.tm_sec = 0;
    if (!isParsed(text, format, fields)) continue;
    if (const WallTime today = atLocal(fields); today <= now) return today;
    --fields.tm_mday;
    return atLocal(fields);
  }
  return std::nullopt;
}

std::optional<WallTime> dateAndTime(const std::string& text) {
  for (const char* const format :
       {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S"}) {
    std::tm fields{};
    if (isParsed(text, format, fields)) return atLocal(fields);
  }
  for (const char* const format : {"%Y-%m-%dT%H:%MZ", "%Y-%m-%dT%H:%M:%SZ", "%Y-%m-%d %H:%M:%SZ"}) {
    std::tm fields{};
    if (isParsed(text, format, fields)) return atSeconds(::timegm(&fields));
  }
  return std::nullopt;
}

}  // namespace

std::optional<WallTime> sinceTime(std::string_view text, WallTime now) {
  if (text == "now") return now;
  if (text == "today" || text == "yesterday") {
    std::tm midnight = localTime(now);
    midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
    if (text == "yesterday") --midnight.tm_mday;
    return atLocal(midnight);
  }
  if (text.starts_with('@')) {
    std::int64_t seconds = 0;
    const auto [end, error] = std::from_chars(text.data() + 1, text.data() + text.size(), seconds);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (!isNumber || seconds < 0 || seconds > kMostSeconds) return std::nullopt;
    return atSeconds(seconds);
  }
  if (const auto time = ago(text, now)) return time;
  const std::string whole(text);
  if (const auto time = timeOfDay(whole, now)) return time;
  return dateAndTime(whole);
}
