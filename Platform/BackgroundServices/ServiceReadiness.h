#pragma once

#include "Platform/Values/Error.h"

namespace platform {

// Reports the state of this program to the service manager, if that asked for it. Blocks for at
// most a second.
class ServiceReadiness {
 public:
  virtual ~ServiceReadiness() = default;

  // The program has started and does its work.
  virtual Result<void> announceReady() = 0;

  // The program is shutting down.
  virtual Result<void> announceStopping() = 0;
};

}  // namespace platform
