#include "Platform/Jobs/JobHistory.h"

#include <chrono>
#include <cmath>
#include <utility>

#include "Platform/Jobs/Jobs.h"

namespace platform {
namespace {

using Seconds = std::chrono::duration<double>;

// Values from another process: what is no plausible number becomes zero.
Duration durationIn(const Value& seconds) {
  constexpr double kLongest = 1e9;
  const double value = seconds.real().value_or(0);
  if (!(std::abs(value) < kLongest)) return {};
  return std::chrono::duration_cast<Duration>(Seconds(value));
}

WallTime wallTimeIn(const Value& date) {
  const double seconds = date.date().value_or(Date()).secondsSinceReferenceDate;
  return WallTime(std::chrono::seconds(kReferenceDateUnixSeconds)) + durationIn(Value(seconds));
}

Value valueOfEnd(const JobHistory::End& end) {
  Dictionary value{{kJobEndTimeKey, dateAt(end.at)}, {kJobRunTimeKey, Seconds(end.ran).count()}};
  if (end.waitStatus) value.set(kJobEndStatusKey, *end.waitStatus);
  return value;
}

}  // namespace

Date dateAt(WallTime time) {
  return Date{
      Seconds(time.time_since_epoch() - std::chrono::seconds(kReferenceDateUnixSeconds)).count()};
}

void JobHistory::add(const End& end, bool wasAskedFor) {
  ++ends;
  if (!wasAskedFor && end.waitStatus.value_or(0) != 0) ++crashes;
  if (lastEnds.size() == kMaximumEnds) lastEnds.erase(lastEnds.begin());
  lastEnds.push_back(end);
}

Value valueOfHistory(const JobHistory& history, JobHistoryDetail detail) {
  Dictionary value{{kJobSinceKey, dateAt(history.since)},
                   {kJobStartsKey, history.starts},
                   {kJobEndsKey, history.ends},
                   {kJobCrashesKey, history.crashes}};
  if (detail == JobHistoryDetail::kCounts) return value;
  Array ends;
  for (const JobHistory::End& end : history.lastEnds) ends.push_back(valueOfEnd(end));
  value.set(kJobLastEndsKey, std::move(ends));
  return value;
}

std::optional<JobHistory> jobHistoryIn(const Value& copy) {
  const Value& value = copy[kJobHistoryKey];
  if (!value.dictionary()) return std::nullopt;
  JobHistory history;
  history.since = wallTimeIn(value[kJobSinceKey]);
  history.starts = value[kJobStartsKey].integer().value_or(0);
  history.ends = value[kJobEndsKey].integer().value_or(0);
  history.crashes = value[kJobCrashesKey].integer().value_or(0);
  const Array* ends = value[kJobLastEndsKey].array();
  if (!ends) return history;
  for (const Value& end : *ends) {
    if (history.lastEnds.size() == JobHistory::kMaximumEnds) break;
    const auto status = end[kJobEndStatusKey].integer();
    history.lastEnds.push_back({wallTimeIn(end[kJobEndTimeKey]),
                                status ? std::optional(static_cast<int>(*status)) : std::nullopt,
                                durationIn(end[kJobRunTimeKey])});
  }
  return history;
}

}  // namespace platform
