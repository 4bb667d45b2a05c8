#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Linux/Processes/DataAvailableNotices.h"
#include "Platform/Processes/Task.h"

namespace platform {

// Programs run with posix_spawn.
class LinuxTasks final : public Tasks {
 public:
  struct Options {
    // Whether file handles call readability handlers, as this platform does from release 10.7 on.
    bool callsReadabilityHandlers = true;
    // The soft limit of descriptors for started programs, if it differs from ours.
    std::optional<std::uint64_t> descriptorLimit = std::nullopt;
  };

  // `loop` and `center` outlive this.
  LinuxTasks(RunLoop& loop, NotificationCenter& center, Options options)
      : notices_(loop, center), options_(options) {}

  std::unique_ptr<Task> newTask() override;

 private:
  DataAvailableNotices notices_;
  Options options_;
};

}  // namespace platform
