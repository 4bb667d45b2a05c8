// A user-space extension of the demo product, both the network extension and the ordinary one: the
// identifier in its bundle's Info.plist selects one. These keys of the Info.plist make it fail, to
// demonstrate how the daemon handles that: "ControlVersion" is the answer to option 3 (5 by
// default), "ControlAnswerBytes" the length of that answer. With "ControlIsDeaf" the extension
// never offers its control, with "ControlHangs" it answers nothing once a client has connected,
// with "ControlCrashes" it crashes at the first question, and with "CrashesAfter" that many seconds
// after its start.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <unistd.h>
#include <vantor/Extension.h>
#include <vantor/Program.h>

#include "NetworkControl.h"

namespace {

class OrdinaryControl final : public vantor::ControlHandler {
 public:
  int getOption(std::uint32_t /*option*/, vantor::Bytes& /*bytes*/) override { return ENOPROTOOPT; }
  int setOption(std::uint32_t /*option*/, const std::uint8_t* /*bytes*/,
                std::size_t /*size*/) override {
    return ENOPROTOOPT;
  }
};

// Twice the limit of an option.
constexpr std::int64_t kMostAnswerBytes = 8192;

// The failures that the extension's Info.plist asks for.
struct Faults {
  explicit Faults(const vantor::Dictionary& info)
      : version(static_cast<std::int32_t>(integer(info, "ControlVersion").value_or(5))),
        answerBytes(integer(info, "ControlAnswerBytes")),
        isDeaf(flag(info, "ControlIsDeaf")),
        hangs(flag(info, "ControlHangs")),
        crashes(flag(info, "ControlCrashes")),
        crashesAfter(integer(info, "CrashesAfter")) {}

  static vantor::Value valueOf(const vantor::Dictionary& info, const char* key) {
    const auto found = info.find(key);
    return found == info.end() ? vantor::Value() : found->second;
  }
  static std::optional<std::int64_t> integer(const vantor::Dictionary& info, const char* key) {
    return valueOf(info, key).integer();
  }
  static bool flag(const vantor::Dictionary& info, const char* key) {
    return valueOf(info, key).boolean() == true;
  }

  const std::int32_t version;
  const std::optional<std::int64_t> answerBytes;
  const bool isDeaf;
  const bool hangs;
  const bool crashes;
  const std::optional<std::int64_t> crashesAfter;
};

// A faulty control for the network extension.
class FaultyControl final : public vantor::ControlHandler {
 public:
  FaultyControl(std::unique_ptr<vantor::ControlHandler> control, const Faults& faults)
      : control_(std::move(control)), faults_(faults) {}

  int getOption(std::uint32_t option, vantor::Bytes& bytes) override {
    crashIfConfigured();
    const int number = control_->getOption(option, bytes);
    if (number == 0 && faults_.answerBytes) {
      bytes.resize(static_cast<std::size_t>(
          std::clamp<std::int64_t>(*faults_.answerBytes, 0, kMostAnswerBytes)));
    }
    return number;
  }
  int setOption(std::uint32_t option, const std::uint8_t* bytes, std::size_t size) override {
    crashIfConfigured();
    return control_->setOption(option, bytes, size);
  }

 private:
  void crashIfConfigured() const {
    if (faults_.crashes) std::abort();
  }

  const std::unique_ptr<vantor::ControlHandler> control_;
  const Faults& faults_;
};

class DemoExtension {
 public:
  explicit DemoExtension(vantor::Program& program)
      : program_(program),
        isNetwork_(Faults::valueOf(program.bundleInfo(), "CFBundleIdentifier") ==
                   vantor::Value("com.vantor.nke.wfk")),
        faults_(program.bundleInfo()) {}

  void start() {
    if (faults_.crashesAfter) {
      std::signal(SIGALRM, [](int /*signal*/) { std::abort(); });
      ::alarm(static_cast<unsigned>(*faults_.crashesAfter));
    }
    if (faults_.isDeaf) return log("at work, without a control");
    auto control = vantor::ExtensionControl::offer(program_, [this] { return makeHandler(); });
    if (!control) return log("no control: " + control.error().text);
    control_ = std::move(*control);
    log("at work");
  }
  void end() {
    log("asked to end");
    control_.reset();
  }

 private:
  std::unique_ptr<vantor::ControlHandler> makeHandler() {
    if (faults_.hangs) ::raise(SIGSTOP);
    if (!isNetwork_) return std::make_unique<OrdinaryControl>();
    return std::make_unique<FaultyControl>(
        std::make_unique<NetworkControl>(faults_.version, secret_,
                                         [this] { log("has been told"); }),
        faults_);
  }
  void log(const std::string& line) { program_.log(vantor::LogLevel::kNotice, line); }

  vantor::Program& program_;
  const bool isNetwork_;
  const Faults faults_;
  KeptSecret secret_;
  std::optional<vantor::ExtensionControl> control_;
};

int fail(const vantor::Error& error) {
  std::fputs((error.text + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

}  // namespace

int main() {
  const auto made = vantor::Program::make();
  if (!made) return fail(made.error());
  // Before any secret can be in memory.
  if (const auto forbidden = vantor::forbidCoreDumps(); !forbidden) return fail(forbidden.error());
  vantor::Program& program = **made;
  DemoExtension extension(program);
  return program.run([&] { extension.start(); }, [&] { extension.end(); });
}
