#include <cstdio>
#include <utility>

#include <vantor/Program.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Kit/ProgramParts.h"
#include "Kit/Values.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace vantor {
namespace {

constexpr char kClassName[] = "Program";

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

void callIfThere(const std::function<void()>& action) {
  if (action) action();
}

class FunctionService final : public platform::VGBackgroundServiceDelegate {
 public:
  FunctionService(const std::function<void()>& started, const std::function<void()>& ending)
      : started_(started), ending_(ending) {}

  void backgroundServiceDidFinishLaunching(const platform::Value& /*notification*/) override {
    callIfThere(started_);
  }
  void backgroundServiceWillTerminate(const platform::Value& /*notification*/) override {
    callIfThere(ending_);
  }

 private:
  const std::function<void()>& started_;
  const std::function<void()>& ending_;
};

class BusObservation final : public Observation {
 public:
  explicit BusObservation(
      std::unique_ptr<platform::DistributedNotificationCenter::Observation> observation)
      : observation_(std::move(observation)) {}

 private:
  const std::unique_ptr<platform::DistributedNotificationCenter::Observation> observation_;
};

}  // namespace

ProgramParts::ProgramParts(std::unique_ptr<platform::LinuxPlatform> made)
    : linux(std::move(made)),
      name(nameOf(linux->mainBundle.executablePath())),
      connections(
          *linux->runLoop, linux->peerTransport, linux->notificationCenter, linux->systemLog,
          [this](std::string_view server) { return places.connection(server); }, linux->userLines) {
  addServiceManagerProtocols(protocols);
  addGlobalSettingsProtocol(protocols);
}

platform::DistributedNotificationCenter& ProgramParts::center() {
  if (!madeCenter) {
    madeCenter = platform::makeBusNotificationCenter(
        *linux->runLoop, platform::notificationBusAddress(linux->configuration), linux->systemLog);
  }
  return *madeCenter;
}

Result<platform::XPC*> ProgramParts::xpc() {
  if (!madeXPC) {
    auto made = platform::LinuxXPC::make(linux->systemLog, places, std::nullopt,
                                         linux->peerAccounts, linux->userLines);
    if (!made) return errorOf(made.error());
    madeXPC = *std::move(made);
  }
  return &madeXPC->xpc();
}

VantorDistantObject::Environment ProgramParts::environment() {
  return {*linux->runLoop,           connections, center(),
          linux->notificationCenter, protocols,   linux->systemInformation};
}

Result<platform::Value> ask(VantorDistantObject& server, std::string_view selector,
                            platform::Array arguments) {
  auto answer = server.sendMessage(selector, std::move(arguments));
  if (!answer) return errorOf(answer.error());
  if (const auto& raised = server.recentException()) {
    if (raised->name != "VantorNilProxyException") return errorOf(*raised);
    return Error{ErrorCode::kNotFound, *server.remoteServerName() + " can't be reached"};
  }
  return *std::move(answer);
}

Observation::~Observation() = default;

Result<std::unique_ptr<Program>> Program::make() {
  auto linux = platform::LinuxPlatform::make();
  if (!linux) {
    platform::logFailedStart(linux.error());
    return errorOf(linux.error());
  }
  return std::unique_ptr<Program>(new Program(std::make_unique<ProgramParts>(*std::move(linux))));
}

Program::Program(std::unique_ptr<ProgramParts> parts) : parts_(std::move(parts)) {}
Program::~Program() = default;

const std::string& Program::name() const { return parts_->name; }
const std::string& Program::path() const { return parts_->linux->mainBundle.executablePath(); }
Dictionary Program::bundleInfo() const {
  const platform::Value info(parts_->linux->mainBundle.infoDictionary());
  return ValueAccess::from(info).dictionary().value_or(Dictionary());
}
const std::string& Program::root() const { return parts_->linux->configuration.root; }

void Program::log(LogLevel level, std::string_view text) const {
  parts_->linux->systemLog.asl_log(nullptr, static_cast<int>(level), text);
}

int Program::run(const std::function<void()>& started, const std::function<void()>& ending) {
  platform::LinuxPlatform& linux = *parts_->linux;
  parts_->classes.add(kClassName,
                      [&] { return std::make_unique<FunctionService>(started, ending); });
  parts_->host.emplace(*linux.runLoop, linux.terminationSignals, linux.readiness, parts_->classes,
                       [this](const std::string& error) { log(LogLevel::kError, error); });
  return platform::VGBackgroundServiceMain(kClassName, 0, nullptr, *parts_->host);
}

void Program::perform(std::function<void()> action) {
  parts_->linux->runLoop->post(std::move(action));
}

void Program::post(std::string_view name, const Value& userInfo,
                   const std::optional<std::string>& object) {
  parts_->center().postNotificationName(name, object, ValueAccess::of(userInfo),
                                        platform::NSNotificationPosting::kPostToAllSessions);
}

std::unique_ptr<Observation> Program::observe(std::string_view name,
                                              std::function<void(const Notification&)> handler) {
  return std::make_unique<BusObservation>(parts_->center().addObserver(
      std::string(name), std::nullopt,
      [handler = std::move(handler)](const platform::DistributedNotification& posted) {
        handler({posted.name, posted.object, ValueAccess::from(posted.userInfo)});
      }));
}

}  // namespace vantor
