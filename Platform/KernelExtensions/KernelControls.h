#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// The longest name of a control, in bytes; a longer one is cut to it wherever a control is named.
inline constexpr std::size_t kControlNameBytes = 96;
constexpr std::string_view controlName(std::string_view name) {
  return name.substr(0, kControlNameBytes);
}

// The most bytes that an option can be written.
inline constexpr std::size_t kMaxControlOptionBytes = 4096;

// An integer option as an extension gave it.
struct ControlInteger {
  std::int32_t value = 0;  // of its first four bytes; what is missing of them is 0
  std::size_t length = 0;  // how many bytes came back, up to kMaxControlOptionBytes
};

// A kernel control socket: one client's connection to what an extension offers under a name. Closed
// when destroyed. Belongs to one thread, which each call blocks for a second at most.
//
// Whoever it is connected to has been found to be root or this program's own user, so that no
// other user can pose as an extension.
class ControlSocket {
 public:
  virtual ~ControlSocket() = default;

  // Finds the control of this name, in the place of CTLIOCGINFO. kNotFound where nobody has ever
  // offered it, kInvalid for what can't be a control's name.
  virtual Result<void> findControl(std::string_view name) = 0;

  // Connects to the control that was found. kNotFound where its extension is gone, kDenied where
  // somebody else offers it.
  virtual Result<void> connect() = 0;

  // The options, whose numbers and meanings are the extension's. Where the extension refuses, the
  // error has its errno. Where it does not answer in time or answers nonsense, or has ended, the
  // connection is of no use any more, and so is this socket.
  virtual Result<ControlInteger> getIntegerOption(std::uint32_t option) = 0;
  virtual Result<void> setOption(std::uint32_t option, std::span<const std::uint8_t> bytes) = 0;

  // Asks for nothing but an answer: who is connected may stand still. Fails as the options do.
  virtual Result<void> ping() = 0;

  // Asks the extension to make itself ready to be unloaded. kDenied with its reason's errno where
  // it can't be, for instance EBUSY while other clients are connected.
  virtual Result<void> prepareToUnload() = 0;
};

// The controls that this machine's extensions offer. Outlives its sockets.
class KernelControls {
 public:
  virtual ~KernelControls() = default;

  // A socket that is not connected yet. Fails where the system has no descriptor to give.
  virtual Result<std::unique_ptr<ControlSocket>> openControlSocket() = 0;
};

// A socket that is connected to the control of this name.
Result<std::unique_ptr<ControlSocket>> connectToControl(KernelControls& controls,
                                                        std::string_view name);

}  // namespace platform
