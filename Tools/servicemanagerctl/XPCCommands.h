#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "Platform/Messages/Protocol.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/XPC.h"
#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl endpoints register|lookup NAME | execinfo PATH...": what any client of the
// registry can do, with the same passkey.
class XPCCommands {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit XPCCommands(CLI::App& app);
  XPCCommands(const XPCCommands&) = delete;
  XPCCommands& operator=(const XPCCommands&) = delete;

  bool parsed() const { return endpoints_->parsed() || execinfo_->parsed(); }

  struct Environment {
    platform::XPC& xpc;
    const platform::SystemInformation& system;
    const platform::ProtocolTable& protocols;
    std::string root;  // of the platform, for texts
    // Whether somebody has the registry's name, though perhaps without answering.
    std::function<bool()> isAnybodyThere;
    // For each file: a hash takes as long as the file is long.
    std::chrono::seconds hashPatience = std::chrono::hours(1);
    // For what everybody is answered, and for what only the product's own programs are.
    std::chrono::seconds anyAnswerPatience{10};
    std::chrono::seconds lookUpPatience{10};
  };
  // Does what was asked, and returns the exit status. A registration lasts until the
  // process is ended, or the service manager is, which fails.
  int run(const Environment& environment) const;

 private:
  using Connection = std::shared_ptr<platform::NSXPCConnection>;

  // Returns why it is over; `ended` is released when the registry's side of the connection ends.
  Refusal registerName(const Environment& environment, const Connection& registry,
                       std::counting_semaphore<>& ended) const;
  Answer<int> lookUp(const Environment& environment, const Connection& registry) const;
  Answer<int> tellExecutables(const Environment& environment, const Connection& registry) const;

  CLI::App* endpoints_;
  CLI::App* register_;
  CLI::App* lookup_;
  CLI::App* execinfo_;
  bool json_ = false;
  std::string name_;
  std::vector<std::string> paths_;
};
