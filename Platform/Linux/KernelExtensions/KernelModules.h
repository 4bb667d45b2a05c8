#pragma once

#include <string>
#include <vector>

#include "Platform/Values/Error.h"

namespace platform {

// The modules of the running kernel, by their names or aliases. Blocks for as long as the kernel
// takes.
class KernelModules {
 public:
  virtual ~KernelModules() = default;

  // Whether all modules of the name are.
  virtual bool isLoaded(const std::string& module) = 0;
  // Whether the kernel itself contains all modules of the name, so that they can't be unloaded.
  virtual bool isBuiltIn(const std::string& module) = 0;
  // Returns the names of the modules that it has inserted in this order: none if all were loaded.
  // If it fails, it leaves no module of an alias behind. Fails with kNotFound if the system has no
  // such module, and with kDenied if the kernel lets us load none.
  virtual Result<std::vector<std::string>> load(const std::string& module) = 0;
  // Unloads all modules of the name that are loaded and not built in. Fails with kNotFound if none
  // is loaded, and with kDenied (EBUSY) if one is in use, or if all are built in.
  virtual Result<void> unload(const std::string& module) = 0;
};

}  // namespace platform
