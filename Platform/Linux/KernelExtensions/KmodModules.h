#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/KernelExtensions/KernelModules.h"

namespace platform {

// Modules by libkmod, from `folder` or the folder of the running kernel. A loaded module is found
// by its name even if the folder no longer has it. Commands that modprobe.d lists for a module are
// not run; aliases do not load modules that it blacklists.
class KmodModules final : public KernelModules {
 public:
  explicit KmodModules(std::optional<std::string> folder = std::nullopt)
      : folder_(std::move(folder)) {}

  bool isLoaded(const std::string& module) override;
  bool isBuiltIn(const std::string& module) override;
  Result<std::vector<std::string>> load(const std::string& module) override;
  Result<void> unload(const std::string& module) override;

 private:
  const std::optional<std::string> folder_;
};

}  // namespace platform
