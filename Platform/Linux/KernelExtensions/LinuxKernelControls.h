#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/Values/Time.h"

namespace platform {

// Controls as sockets in the platform root's folder for them.
class LinuxKernelControls final : public KernelControls {
 public:
  // The limit for connecting, and for each request.
  static constexpr Duration kTimeout = std::chrono::seconds(1);

  explicit LinuxKernelControls(const std::string& root, Duration timeout = kTimeout);

  Result<std::unique_ptr<ControlSocket>> openControlSocket() override;

 private:
  const std::string folder_;
  const Duration timeout_;
};

}  // namespace platform
