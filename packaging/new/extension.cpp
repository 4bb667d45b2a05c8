// The extension of @PRODUCT@, a program in a bundle of its own. The service manager loads it before
// it starts a service that names it in the catalogue, and takes it for loaded when it offers its
// control. Services read and write the options of the control. Here there is one.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include <vantor/Extension.h>
#include <vantor/Program.h>

namespace {

constexpr std::uint32_t kReadyOption = 100;  // read: one byte, 1

class Control final : public vantor::ControlHandler {
 public:
  int getOption(std::uint32_t option, vantor::Bytes& bytes) override {
    if (option != kReadyOption) return ENOPROTOOPT;
    bytes = {1};
    return 0;
  }
  int setOption(std::uint32_t /*option*/, const std::uint8_t* /*bytes*/,
                std::size_t /*size*/) override {
    return ENOPROTOOPT;
  }
};

}  // namespace

int main() {
  const auto made = vantor::Program::make();
  if (!made) {
    std::fputs((made.error().text + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  vantor::Program& program = **made;
  std::optional<vantor::ExtensionControl> control;
  return program.run(
      [&] {
        auto offered =
            vantor::ExtensionControl::offer(program, [] { return std::make_unique<Control>(); });
        if (!offered) return program.log(vantor::LogLevel::kError, offered.error().text);
        control = std::move(*offered);
        program.log(vantor::LogLevel::kNotice, "at work");
      },
      [&] { control.reset(); });
}
