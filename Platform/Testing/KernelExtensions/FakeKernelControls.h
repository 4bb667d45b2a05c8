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

// Controls that a test offers. A request to a hung one takes a second of virtual time.
class FakeKernelControls final : public KernelControls {
 public:
  // `loop` outlives this, and this outlives its sockets.
  explicit FakeKernelControls(VirtualRunLoop& loop) : loop_(loop) {}

  // Offers a control and replaces one of the same name. If `isListening` is given and returns
  // false, nobody listens.
  void offer(std::string_view name, MakeControlHandler makeHandler,
             std::function<bool()> isListening = nullptr);
  void withdraw(std::string_view name) { controls_.erase(std::string(name)); }
  // Whether it only connects clients and answers nothing.
  void setHanging(std::string_view name, bool isHanging) {
    controls_.at(std::string(name)).isHanging = isHanging;
  }
  // It was restarted as this process.
  void setProcess(std::string_view name, ProcessId process) {
    controls_.at(std::string(name)).process = process;
  }
  // It belongs to a user who is not trusted.
  void setForeign(std::string_view name) { controls_.at(std::string(name)).isForeign = true; }
  // The control exists, but nobody can connect to it.
  void setUnreachable(std::string_view name) {
    controls_.at(std::string(name)).isUnreachable = true;
  }
  void setWithoutDescriptors(bool without) { withoutDescriptors_ = without; }

  // The numbers of connected clients, and of all clients so far.
  int clients(std::string_view name) const { return controls_.at(std::string(name)).clients; }
  int connections(std::string_view name) const {
    return controls_.at(std::string(name)).connections;
  }
  // The number of lookups of this name.
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
    ProcessId process = 1;
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
