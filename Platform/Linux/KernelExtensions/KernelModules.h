#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// The modules of the running kernel, by their names or aliases. Blocks for as long as the kernel
// takes.
class KernelModules {
 public:
  virtual ~KernelModules() = default;

  virtual bool isLoaded(const std::string& module) = 0;
  // Also succeeds if the module is loaded. If it fails, it leaves no module of an alias behind.
  // Fails with kNotFound if the system has no such module, and with kDenied if the kernel lets us
  // load none.
  virtual Result<void> load(const std::string& module) = 0;
  // Fails with kNotFound if the module is not loaded, and with kDenied (EBUSY) if it is in use.
  virtual Result<void> unload(const std::string& module) = 0;
};

}  // namespace platform
