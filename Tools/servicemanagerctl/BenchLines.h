#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/RunLoops/RunLoop.h"

// Tells in words what a job host does with the only job that it has, from the lines of its log.
// Pure.
class BenchLines {
 public:
  // The job is started again `throttle` after its last start at the earliest.
  BenchLines(const std::string& label, platform::Duration throttle);

  // The words for the line; nothing if it is not about the job.
  std::optional<std::string> tell(std::string_view line, platform::Instant now);

  // From now on the job is not started again.
  void end() { isEnding_ = true; }

  // Whether the job host has rejected the job.
  bool isRejected() const { return isRejected_; }

 private:
  std::string restart(platform::Instant now) const;

  const std::string mark_;
  const platform::Duration throttle_;
  std::optional<platform::Instant> started_;
  bool isEnding_ = false;
  bool isRejected_ = false;
};
