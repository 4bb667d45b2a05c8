#pragma once

#include <string>

namespace benchmarks {

// What one group of measurements is for. A group is a pair of Google benchmarks named
// "GROUP/subject" and "GROUP/baseline", which are run interleaved in one process; the report sets
// the median time of an iteration of the one against that of the other.
struct Goal {
  std::string group;
  double ratio = 1;     // subject's time divided by the baseline's
  std::string meaning;  // what is compared with what, for the report
};

// Adds a goal to the report: `const bool kAdded = atMost({...});` beside the benchmarks.
bool atMost(Goal goal);

}  // namespace benchmarks
