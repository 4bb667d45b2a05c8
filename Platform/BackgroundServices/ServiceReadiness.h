#pragma once

#include "Platform/Values/Error.h"

namespace platform {

// Tells whoever started this program, if they asked, how far it is. Blocks for a second at most.
class ServiceReadiness {
 public:
  virtual ~ServiceReadiness() = default;

  // The program has started and does its work.
  virtual Result<void> announceReady() = 0;

  // The program is on its way to its end.
  virtual Result<void> announceStopping() = 0;
};

}  // namespace platform
