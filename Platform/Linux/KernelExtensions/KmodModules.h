#pragma once

#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/KernelExtensions/KernelModules.h"

namespace platform {

// Modules by libkmod, from `folder` or the folder of the kernel that runs. A module that is loaded
// is known by its name also where that folder has it no more. Commands that modprobe.d names for a
// module are not run; what it blacklists is not loaded by an alias.
class KmodModules final : public KernelModules {
 public:
  explicit KmodModules(std::optional<std::string> folder = std::nullopt)
      : folder_(std::move(folder)) {}

  bool isLoaded(const std::string& module) override;
  Result<void> load(const std::string& module) override;
  Result<void> unload(const std::string& module) override;

 private:
  const std::optional<std::string> folder_;
};

}  // namespace platform
