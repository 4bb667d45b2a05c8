#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// The modules of the kernel that runs, by their names or aliases. Blocks for as long as the kernel
// takes.
class KernelModules {
 public:
  virtual ~KernelModules() = default;

  virtual bool isLoaded(const std::string& module) = 0;
  // Also succeeds where it is loaded. kNotFound where the system has no such module, kDenied where
  // the kernel takes none from us.
  virtual Result<void> load(const std::string& module) = 0;
  // kNotFound where it is not loaded, kDenied (EBUSY) where it is in use.
  virtual Result<void> unload(const std::string& module) = 0;
};

}  // namespace platform
