#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/XPC.h"
#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl endpoints register|lookup NAME | execinfo PATH...": the requests that any
// client of the registry can send, with the same passkey.
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
    // Tries to connect to the registry: why that fails, nothing if it does not.
    std::function<std::optional<platform::PeerConnectFailure>()> whyNotConnected;
    // For each file: hashing a large file takes long.
    std::chrono::seconds hashTimeOut = std::chrono::hours(1);
    // For requests that are answered at once, and for lookups, which only the product's own
    // programs get answered.
    std::chrono::seconds answerTimeOut{10};
    std::chrono::seconds lookupTimeOut{10};
    std::optional<std::string> group = {};  // of the product, for advice
    bool isRoot = false;                    // this user
    // Why others than root and the platform's owner can change the file; empty if they can't. If it
    // is not set, nothing is said about the file's place.
    std::function<std::string(const std::string& file)> faultOfPlace = {};
    // The protection of the file. Nothing is said about it if this is not set or tells nothing.
    std::function<std::optional<platform::CodeProtection>(const std::string& file)> protectionOf =
        {};
    // The check of the file's signature, wherever it lies. If it is not set, nothing is said about
    // it.
    std::function<platform::CodeSigningResult<void>(const std::string& file)> check = {};
  };
  // Runs the command and returns the exit status. A registration lasts until this process ends; it
  // fails if the service manager ends first.
  int run(const Environment& environment) const;

 private:
  using Connection = std::shared_ptr<platform::NSXPCConnection>;

  // Returns why the registration is over; `ended` is released when the registry's side of the
  // connection ends.
  Refusal registerName(const Environment& environment, const Connection& registry,
                       std::counting_semaphore<>& ended) const;
  Answer<int> lookUp(const Environment& environment, const Connection& registry) const;
  Answer<int> tellExecutables(const Environment& environment, const Connection& registry) const;

  CLI::App* endpoints_;
  CLI::App* register_;
  CLI::App* lookup_;
  CLI::App* execinfo_;
  bool json_ = false;
  std::string lines_;  // not empty: JSON
  std::string name_;
  std::vector<std::string> paths_;
};
