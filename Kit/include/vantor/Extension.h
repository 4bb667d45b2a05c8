#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <vantor/Api.h>
#include <vantor/Program.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {

struct ExtensionControlParts;

// Answers one client of an extension's control: one handler is made for each connection and ends
// with it. An option is a number that the extension and its clients agree on. The service manager
// reads option 3, the version: four bytes in the machine's order. An extension with the option
// "secure" in the catalogue is told the secret as option
// 5. A function returns 0, or an error number of <errno.h>, which its client gets: ENOPROTOOPT for
// an option that there is not.
class VANTOR_KIT_API ControlHandler {
 public:
  virtual ~ControlHandler();

  // Reads an option: 4,096 bytes at most.
  virtual int getOption(std::uint32_t option, Bytes& bytes) = 0;
  // Writes one: 4,096 bytes at most. They are wiped after the call, because they may be a secret.
  virtual int setOption(std::uint32_t option, const std::uint8_t* bytes, std::size_t size) = 0;
};

// The control of a user-space extension, by which the service manager recognises that it runs. Root
// and the user of this program may use it.
class VANTOR_KIT_API ExtensionControl {
 public:
  using MakeHandler = std::function<std::unique_ptr<ControlHandler>()>;

  // Offers the control under the identifier of the extension's bundle. For `started` of
  // Program::run(). Handlers are made and called on the main thread. Fails with kInvalid without a
  // valid identifier, and with kDenied if another process offers it. The program outlives this.
  static Result<ExtensionControl> offer(Program& program, MakeHandler makeHandler);

  ExtensionControl(ExtensionControl&& other) noexcept;
  ExtensionControl& operator=(ExtensionControl&& other) noexcept;
  // Withdraws it, and disconnects its clients.
  ~ExtensionControl();

 private:
  explicit ExtensionControl(std::unique_ptr<ExtensionControlParts> parts);

  std::unique_ptr<ExtensionControlParts> parts_;
};

// From now on this process leaves no core dump, and other processes of its user can't read its
// memory. For programs that hold a secret: call it before they can have one.
VANTOR_KIT_API Result<void> forbidCoreDumps();

}  // namespace vantor
