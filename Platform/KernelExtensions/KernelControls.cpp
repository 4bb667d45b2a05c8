#include "Platform/KernelExtensions/KernelControls.h"

#include <utility>

namespace platform {

Result<std::unique_ptr<ControlSocket>> connectToControl(KernelControls& controls,
                                                        std::string_view name) {
  auto socket = controls.openControlSocket();
  if (!socket) return socket;
  if (auto found = (*socket)->findControl(controlName(name)); !found) {
    return std::unexpected(std::move(found.error()));
  }
  if (auto connected = (*socket)->connect(); !connected) {
    return std::unexpected(std::move(connected.error()));
  }
  return socket;
}

}  // namespace platform
