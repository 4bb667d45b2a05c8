// A user-space extension of the demo product, both the network extension and the ordinary one: the
// identifier in its bundle's Info.plist selects one. These keys of the Info.plist make it fail, to
// demonstrate how the daemon handles that: "ControlVersion" is the answer to option 3 (5 by
// default), "ControlAnswerBytes" the length of that answer. With "ControlIsDeaf" the extension
// never offers its control, with "ControlHangs" it answers nothing once a client has connected,
// with "ControlCrashes" it crashes at the first question, and with "CrashesAfter" that many seconds
// after its start.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <unistd.h>

#include "Examples/DemoProduct/Extensions/NetworkControl.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/Linux/KernelExtensions/ControlServer.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/SystemCalls/CoreDumps.h"

namespace {

class OrdinaryControl final : public platform::ControlHandler {
 public:
  platform::Result<platform::Data> getOption(std::uint32_t /*option*/) override {
    return std::unexpected(platform::Error{platform::ErrorCode::kInvalid, ENOPROTOOPT, "none"});
  }
  platform::Result<void> setOption(std::uint32_t /*option*/,
                                   std::span<const std::uint8_t> /*bytes*/) override {
    return std::unexpected(platform::Error{platform::ErrorCode::kInvalid, ENOPROTOOPT, "none"});
  }
};

// Twice the limit of an option.
constexpr std::int64_t kMostAnswerBytes = 2 * platform::kMaxControlOptionBytes;

// A faulty control for the network extension.
class FaultyControl final : public platform::ControlHandler {
 public:
  FaultyControl(std::unique_ptr<platform::ControlHandler> control, const platform::Dictionary& info)
      : control_(std::move(control)), info_(info) {}

  platform::Result<platform::Data> getOption(std::uint32_t option) override {
    crashIfConfigured();
    auto answer = control_->getOption(option);
    const auto length = info_["ControlAnswerBytes"].integer();
    if (answer && length)
      answer->resize(
          static_cast<std::size_t>(std::clamp<std::int64_t>(*length, 0, kMostAnswerBytes)));
    return answer;
  }
  platform::Result<void> setOption(std::uint32_t option,
                                   std::span<const std::uint8_t> bytes) override {
    crashIfConfigured();
    return control_->setOption(option, bytes);
  }

 private:
  void crashIfConfigured() const {
    if (info_["ControlCrashes"].boolean() == true) std::abort();
  }

  const std::unique_ptr<platform::ControlHandler> control_;
  const platform::Dictionary& info_;
};

class DemoExtension final : public platform::VGBackgroundServiceDelegate {
 public:
  explicit DemoExtension(platform::LinuxPlatform& linux)
      : linux_(linux), info_(linux.mainBundle.infoDictionary()) {}

  void backgroundServiceDidFinishLaunching(const platform::Value& /*notification*/) override {
    if (const auto seconds = info_["CrashesAfter"].integer()) {
      crash_ = linux_.runLoop->startTimer(std::chrono::seconds(*seconds),
                                          platform::RunLoop::Repeat::kOnce, [] { std::abort(); });
    }
    if (info_["ControlIsDeaf"].boolean() == true) return log("at work, without a control");
    const std::string* const identifier = info_["CFBundleIdentifier"].string();
    auto server = platform::ControlServer::listen(*linux_.runLoop, linux_.configuration.root,
                                                  identifier ? *identifier : std::string(),
                                                  [this] { return makeHandler(); });
    if (!server) return log("no control: " + platform::describe(server.error()));
    server_ = *std::move(server);
    log("at work");
  }
  void backgroundServiceWillTerminate(const platform::Value& /*notification*/) override {
    log("asked to end");
    server_.reset();
  }

 private:
  std::unique_ptr<platform::ControlHandler> makeHandler() {
    if (info_["ControlHangs"].boolean() == true) ::raise(SIGSTOP);
    const std::string* const identifier = info_["CFBundleIdentifier"].string();
    if (!identifier || *identifier != "com.vantor.nke.wfk") {
      return std::make_unique<OrdinaryControl>();
    }
    const auto version = static_cast<std::int32_t>(info_["ControlVersion"].integer().value_or(5));
    return std::make_unique<FaultyControl>(
        std::make_unique<NetworkControl>(version, secret_, [this] { log("has been told"); }),
        info_);
  }
  void log(const std::string& line) {
    linux_.systemLog.asl_log(nullptr, platform::ASL_LEVEL_NOTICE, line);
  }

  platform::LinuxPlatform& linux_;
  const platform::Dictionary& info_;
  KeptSecret secret_;
  std::unique_ptr<platform::ControlServer> server_;
  std::unique_ptr<platform::RunLoopHandle> crash_;
};

}  // namespace

int main(int argc, char** argv) {
  auto made = platform::LinuxPlatform::make();
  // Before any secret can be in memory.
  auto forbidden = platform::forbidCoreDumps();
  if (!made || !forbidden) {
    const platform::Error& error = made ? forbidden.error() : made.error();
    std::fputs((platform::describe(error) + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  platform::LinuxPlatform& linux = **made;
  platform::BackgroundServiceClasses classes;
  classes.add("DemoExtension", [&] { return std::make_unique<DemoExtension>(linux); });
  platform::BackgroundServiceHost host{*linux.runLoop, linux.terminationSignals, linux.readiness,
                                       classes};
  return platform::VGBackgroundServiceMain("DemoExtension", argc, argv, host);
}
