#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"

namespace platform {

// A child, held until it is reaped. Destroyed before that it is killed.
class SpawnedProcess {
 public:
  struct Outputs {
    int standardOutput;
    int standardError;
  };

  // Runs the program at `path`, which also is its first argument. Nobody's descriptors but the
  // standard ones get there: an empty input, and `outputs` or this program's own. Signals are as a
  // new program finds them. With `descriptorLimit` it gets that soft limit in place of ours.
  //
  // Fails with the system's number; kInvalid where it is the path that can't be run.
  static Result<SpawnedProcess> spawn(const std::string& path, std::vector<std::string> arguments,
                                      std::optional<Outputs> outputs,
                                      std::optional<std::uint64_t> descriptorLimit);

  SpawnedProcess(SpawnedProcess&&) = default;
  SpawnedProcess& operator=(SpawnedProcess&&) = delete;
  ~SpawnedProcess();

  // Readable once it has ended.
  int descriptor() const { return pidfd_.get(); }

  // Waits for its end. The exit status, or the number of the signal; nothing where somebody else
  // has reaped it. To be called once.
  std::optional<int> reap();

 private:
  explicit SpawnedProcess(UniqueFd pidfd) : pidfd_(std::move(pidfd)) {}

  UniqueFd pidfd_;  // until it is reaped
};

}  // namespace platform
