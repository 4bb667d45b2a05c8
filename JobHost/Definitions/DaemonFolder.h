#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "JobHost/Definitions/JobDefinition.h"

namespace jobhost {

// More files would be a mistake. Those with the first names count.
inline constexpr std::size_t kMaximumDaemonFiles = 4096;

// The definitions in the *.plist files of a folder, ordered by file name.
struct DaemonFolder {
  std::vector<JobDefinition> definitions;
  // One line for each file that defines no job: it is not trusted (neither root's nor ours, or
  // others can write it), is no property list, holds no job, or repeats another file's label. One
  // more line if there are too many files.
  std::vector<std::string> faults;
};

// A missing folder counts as empty. The folder itself must be as trusted as its files.
DaemonFolder readDaemonFolder(const std::string& path);

}  // namespace jobhost
