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
    // Whether file handles call readability handlers: this platform does from its release 10.7 on.
    bool callsReadabilityHandlers = true;
    // The soft limit of descriptors that programs get, where ours is another.
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
