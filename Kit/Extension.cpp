#include <string>
#include <utility>

#include <vantor/Extension.h>

#include "Kit/ProgramParts.h"
#include "Kit/Values.h"
#include "Platform/KernelExtensions/ControlHandler.h"
#include "Platform/Linux/KernelExtensions/ControlServer.h"
#include "Platform/Linux/SystemCalls/CoreDumps.h"

namespace vantor {
namespace {

platform::Error errorOfOption(int number) {
  return {platform::ErrorCode::kSystem, number, "the extension's handler"};
}

class HandlerOfKit final : public platform::ControlHandler {
 public:
  explicit HandlerOfKit(std::unique_ptr<vantor::ControlHandler> handler)
      : handler_(std::move(handler)) {}

  platform::Result<platform::Data> getOption(std::uint32_t option) override {
    Bytes bytes;
    if (const int number = handler_->getOption(option, bytes))
      return std::unexpected(errorOfOption(number));
    return bytes;
  }
  platform::Result<void> setOption(std::uint32_t option,
                                   std::span<const std::uint8_t> bytes) override {
    if (const int number = handler_->setOption(option, bytes.data(), bytes.size()))
      return std::unexpected(errorOfOption(number));
    return {};
  }

 private:
  const std::unique_ptr<vantor::ControlHandler> handler_;
};

}  // namespace

struct ExtensionControlParts {
  std::unique_ptr<platform::ControlServer> server;
};

ControlHandler::~ControlHandler() = default;

Result<ExtensionControl> ExtensionControl::offer(Program& program, MakeHandler makeHandler) {
  platform::LinuxPlatform& linux = *program.parts().linux;
  const std::string* const identifier =
      linux.mainBundle.infoDictionary()["CFBundleIdentifier"].string();
  auto server = platform::ControlServer::listen(
      *linux.runLoop, linux.configuration.root, identifier ? *identifier : std::string(),
      [makeHandler = std::move(makeHandler)] {
        return std::make_unique<HandlerOfKit>(makeHandler());
      });
  if (!server) return errorOf(server.error());
  return ExtensionControl(
      std::make_unique<ExtensionControlParts>(ExtensionControlParts{*std::move(server)}));
}

ExtensionControl::ExtensionControl(std::unique_ptr<ExtensionControlParts> parts)
    : parts_(std::move(parts)) {}
ExtensionControl::ExtensionControl(ExtensionControl&& other) noexcept = default;
ExtensionControl& ExtensionControl::operator=(ExtensionControl&& other) noexcept = default;
ExtensionControl::~ExtensionControl() = default;

Result<void> forbidCoreDumps() {
  if (auto forbidden = platform::forbidCoreDumps(); !forbidden) return errorOf(forbidden.error());
  return {};
}

}  // namespace vantor
