#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "JobHost/Definitions/JobDefinition.h"

namespace jobhost {

// More would be somebody's mistake: those with the first names count.
inline constexpr std::size_t kMaximumDaemonFiles = 4096;

// What the *.plist files of a folder define, in the order of the files' names.
struct DaemonFolder {
  std::vector<JobDefinition> definitions;
  // One line for each file that defines no job: it is not trusted (not root's or ours, or others
  // can write it), no property list, no job, or has another file's label. One more line where there
  // are too many files.
  std::vector<std::string> faults;
};

// A folder that is missing is an empty one. The folder itself must be as trusted as its files.
DaemonFolder readDaemonFolder(const std::string& path);

}  // namespace jobhost
