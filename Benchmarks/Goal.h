#pragma once

#include <string>

namespace benchmarks {

// The purpose of one group of measurements. A group is a pair of Google benchmarks named
// "GROUP/subject" and "GROUP/baseline", which run interleaved in one process; the report compares
// the median times of their iterations.
struct Goal {
  std::string group;
  double ratio = 1;     // subject's time divided by the baseline's
  std::string meaning;  // the comparison in words, for the report
};

// Adds a goal to the report: `const bool kAdded = atMost({...});` beside the benchmarks.
bool atMost(Goal goal);

}  // namespace benchmarks
