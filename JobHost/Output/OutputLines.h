#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Platform/Values/Time.h"

namespace jobhost {

// Cuts the output of one label into lines, and bounds them in length and in number. Dropped lines
// are counted, and a line in their place tells how many there were.
class OutputLines {
 public:
  // A longer line is cut into several.
  static constexpr std::size_t kMaximumBytes = 8 * 1024;
  // Further lines are dropped until the time is over.
  static constexpr std::size_t kMostBytes = std::size_t{1} << 20;
  static constexpr platform::Duration kTime = std::chrono::seconds(10);
  // So much of it may use the room that is kept for urgent lines, so that a flood of others does
  // not take the output of a quiet label.
  static constexpr std::size_t kUrgentBytes = std::size_t{64} * 1024;
  // The cost of a line beside its text.
  static constexpr std::size_t kOverhead = 64;
  // The end of a line is awaited for this time.
  static constexpr platform::Duration kQuietTime = std::chrono::seconds(1);

  // Takes a line without its end; false if there is no room for it.
  using Take = std::function<bool(std::string_view line, bool isUrgent)>;

  explicit OutputLines(Take take) : take_(std::move(take)) {}

  void add(std::string_view bytes, platform::Instant now);

  // Whether something is left for tick() or end().
  bool isUnfinished() const { return !pending_.empty() || lost_ > 0; }

  // Ends a line that has not got on for kQuietTime. Reports dropped lines if there is room again,
  // and those above the bound when kTime is over.
  void tick(platform::Instant now);

  // There is no more output: ends the line, and reports dropped lines.
  void end();

 private:
  void emit(std::string_view line);
  bool pass(std::string_view line);
  void endPending();
  void startTimeIfOver(platform::Instant now);
  void reportLost();

  const Take take_;
  std::string pending_;
  platform::Instant changedAt_{};
  platform::Instant begin_{};
  std::size_t bytes_ = 0;     // taken since `begin_`
  bool isOverLimit_ = false;  // until the time is over
  std::uint64_t lost_ = 0;
};

}  // namespace jobhost
