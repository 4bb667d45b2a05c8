#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Values/Error.h"

namespace platform {

// A control group (cgroup v2) by its folder. This only names it: the group is in the kernel, and
// may be missing. "All" are the processes in it and in groups below it. A process leaves it only
// with the permission to write elsewhere in the hierarchy, whatever session it makes.
class ControlGroup {
 public:
  explicit ControlGroup(std::string folder) : folder_(std::move(folder)) {}

  const std::string& folder() const { return folder_; }

  // A descriptor of the group, to start processes in it. Makes the group if it is missing.
  Result<UniqueFd> open() const;

  // Whether a process lives in it. Zombies don't count. True if that can't be read.
  bool isPopulated() const;

  // The numbers of all its processes, in no order.
  std::vector<ProcessId> processes() const;

  // Kills all at once, also those that are being forked. Succeeds if there are none.
  Result<void> kill() const;
  // The same for kernels before Linux 5.14: freezes them, so that none starts another meanwhile.
  Result<void> killByFreezing() const;

  // The use of all processes.
  struct Use {
    std::size_t processes = 0;
    std::chrono::microseconds cpuTime{};
    std::optional<std::uint64_t> memoryBytes;  // empty without a controller for memory
  };
  Use use() const;

  // Hands the controllers for processors, disks, memory and the number of processes down to groups
  // below, as far as this group has them. No process may be in it. Returns whether groups below can
  // have weights.
  bool handControllersDown() const;
  // For processors and disks, from 1 to 10000, as far as it has their controllers.
  void setWeight(int weight) const;

  // Moves all into another group, which exists. Processes that start others faster than they are
  // moved stay.
  void moveAllTo(const ControlGroup& other) const;

  // Removes the group and those below it. False if a process is in one of them.
  bool remove() const;

 private:
  std::string folder_;
};

// Where the hierarchy of version 2 is mounted.
struct ControlGroupHierarchy {
  std::string mountPoint;
  std::string root;  // the group that is mounted there, "/" for the whole hierarchy

  // Reads the contents of a /proc/PID/mountinfo. Fails if the hierarchy is not mounted or is
  // read-only.
  static Result<ControlGroupHierarchy> find(const std::string& mountInfo);
  // The same for this process.
  static Result<ControlGroupHierarchy> find();

  // The folder of the group in the contents of a /proc/PID/cgroup. Empty if the mount does not show
  // it.
  std::string folderOf(const std::string& groups) const;
};

// The contents of a file of the kernel, as far as they can be read.
std::string contentOfKernelFile(const std::string& path);

}  // namespace platform
