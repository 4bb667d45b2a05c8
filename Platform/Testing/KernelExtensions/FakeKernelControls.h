#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/KernelExtensions/ControlHandler.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

// Controls that a test offers. A request to one that hangs takes a second of virtual time.
class FakeKernelControls final : public KernelControls {
 public:
  // `loop` outlives this, and this its sockets.
  explicit FakeKernelControls(VirtualRunLoop& loop) : loop_(loop) {}

  // Offers a control, in place of any other of the name. While `isListening`, where there is one,
  // says no, nobody is there.
  void offer(std::string_view name, MakeControlHandler makeHandler,
             std::function<bool()> isListening = nullptr);
  void withdraw(std::string_view name) { controls_.erase(std::string(name)); }
  // Connects clients and answers nothing, or does again.
  void setHanging(std::string_view name, bool isHanging) {
    controls_.at(std::string(name)).isHanging = isHanging;
  }
  // Belongs to a user that nobody trusts with it.
  void setForeign(std::string_view name) { controls_.at(std::string(name)).isForeign = true; }
  // There is a control of the name, to which nobody can connect.
  void setUnreachable(std::string_view name) {
    controls_.at(std::string(name)).isUnreachable = true;
  }
  void setWithoutDescriptors(bool without) { withoutDescriptors_ = without; }

  // How many clients are connected, and how many ever were.
  int clients(std::string_view name) const { return controls_.at(std::string(name)).clients; }
  int connections(std::string_view name) const {
    return controls_.at(std::string(name)).connections;
  }
  // How often a control of this name was looked for.
  int searches(std::string_view name) const;

  Result<std::unique_ptr<ControlSocket>> openControlSocket() override;

 private:
  class FakeSocket;
  struct Control {
    MakeControlHandler makeHandler;
    std::function<bool()> isListening;
    bool isHanging = false;
    bool isForeign = false;
    bool isUnreachable = false;
    int clients = 0;
    int connections = 0;
  };
  Control* find(std::string_view name);

  VirtualRunLoop& loop_;
  std::map<std::string, Control, std::less<>> controls_;
  std::map<std::string, int, std::less<>> searches_;
  bool withoutDescriptors_ = false;
};

}  // namespace platform
