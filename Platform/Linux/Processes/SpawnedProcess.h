#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"

namespace platform {

// A child process, held until it is reaped. The destructor kills one that has not been reaped.
class SpawnedProcess {
 public:
  struct Outputs {
    int standardOutput;
    int standardError;
  };

  // Runs the program at `path`, which is also its first argument. It inherits only the standard
  // descriptors: an empty input, and `outputs` or this program's own. Its signals have the state of
  // a new program. `descriptorLimit` is its soft limit in place of ours.
  //
  // Fails with the system's errno, and with kInvalid if the program at `path` can't be run.
  static Result<SpawnedProcess> spawn(const std::string& path, std::vector<std::string> arguments,
                                      std::optional<Outputs> outputs,
                                      std::optional<std::uint64_t> descriptorLimit);

  SpawnedProcess(SpawnedProcess&&) = default;
  SpawnedProcess& operator=(SpawnedProcess&&) = delete;
  ~SpawnedProcess();

  // Readable once the process has ended.
  int descriptor() const { return pidfd_.get(); }

  // Blocks until the process ends. Returns the exit status or the number of the signal;
  // std::nullopt if somebody else has reaped it. Call it once.
  std::optional<int> reap();

 private:
  explicit SpawnedProcess(UniqueFd pidfd) : pidfd_(std::move(pidfd)) {}

  UniqueFd pidfd_;  // until it is reaped
};

}  // namespace platform
