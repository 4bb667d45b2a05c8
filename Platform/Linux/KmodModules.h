#pragma once

#include <string>

#include "Platform/Linux/KernelModules.h"

namespace platform {

// Modules by libkmod, from the folder of the kernel that runs. Commands that modprobe.d names for a
// module are not run; what it blacklists is not loaded by an alias.
class KmodModules final : public KernelModules {
 public:
  bool isLoaded(const std::string& module) override;
  Result<void> load(const std::string& module) override;
  Result<void> unload(const std::string& module) override;
};

}  // namespace platform
