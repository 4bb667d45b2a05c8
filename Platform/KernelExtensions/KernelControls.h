#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "Platform/Files/FileNames.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"

namespace platform {

// The longest name of a control, in bytes. Wherever a control is named, a longer name is cut.
inline constexpr std::size_t kControlNameBytes = 96;
constexpr std::string_view controlName(std::string_view name) {
  return name.substr(0, kControlNameBytes);
}

// Whether a control can have this name, which is a file's at the same time.
constexpr bool isControlName(std::string_view name) {
  return isPlainFileName(name, kControlNameBytes);
}

// The largest option, in bytes.
inline constexpr std::size_t kMaxControlOptionBytes = 4096;

// An integer option as the extension returned it.
struct ControlInteger {
  std::int32_t value = 0;  // from its first four bytes; missing ones are 0
  std::size_t length = 0;  // the number of bytes returned, up to kMaxControlOptionBytes
};

// A kernel control socket: one client's connection to the control that an extension offers under a
// name. The destructor closes it. Belongs to one thread; each call blocks for at most a second.
//
// The peer has been verified to be root or this program's own user, so that no other user can pose
// as an extension.
class ControlSocket {
 public:
  virtual ~ControlSocket() = default;

  // Finds the control with this name, like CTLIOCGINFO. Fails with kNotFound if nobody has ever
  // offered it, and with kInvalid if the name is not valid.
  virtual Result<void> findControl(std::string_view name) = 0;

  // Connects to the control that was found. Fails with kNotFound if its extension is gone, and with
  // kDenied if another user offers it.
  virtual Result<void> connect() = 0;

  // The process that offers the control. It has another number after a restart of its extension; 0
  // without a connection.
  virtual ProcessId offeredBy() const = 0;

  // The extension defines the numbers and meanings of its options. If it refuses, the error has its
  // errno. If it does not answer in time, sends a malformed answer or has ended, the connection and
  // this socket can't be used any more.
  virtual Result<ControlInteger> getIntegerOption(std::uint32_t option) = 0;
  virtual Result<void> setOption(std::uint32_t option, std::span<const std::uint8_t> bytes) = 0;

  // Asks only for an answer, because a connected extension may hang. Fails like the options.
  virtual Result<void> ping() = 0;

  // Asks the extension to prepare for being unloaded. Fails with kDenied and the errno of the
  // reason if it can't, for instance EBUSY while other clients are connected.
  virtual Result<void> prepareToUnload() = 0;
};

// The controls that this machine's extensions offer. Outlives its sockets.
class KernelControls {
 public:
  virtual ~KernelControls() = default;

  // A socket that is not connected yet. Fails if the system has no descriptor left.
  virtual Result<std::unique_ptr<ControlSocket>> openControlSocket() = 0;
};

// A socket that is connected to the control with this name.
Result<std::unique_ptr<ControlSocket>> connectToControl(KernelControls& controls,
                                                        std::string_view name);

}  // namespace platform
