#pragma once

#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// Reports the state of this program to the service manager, if that asked for it. Blocks for at
// most a second.
class ServiceReadiness {
 public:
  virtual ~ServiceReadiness() = default;

  // The program has started and does its work.
  virtual Result<void> announceReady() = 0;

  // The program's state in a few words for people. Never blocks.
  virtual Result<void> announceStatus(std::string_view status) = 0;

  // The program is shutting down.
  virtual Result<void> announceStopping() = 0;
};

}  // namespace platform
