// The demo product's configuration server, for which every other service waits. It serves the
// settings of all domains, reports whether it is up, and announces its start and its end.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Examples/DemoProduct/Settings/SettingsServers.h"
#include "Examples/DemoProduct/Settings/SettingsStore.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Logger/Logger.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/Linux/Files/PropertyListFile.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

constexpr char kStateFolder[] = "var/lib";
constexpr char kSettingsFolder[] = "var/lib/vantor";
constexpr char kSettingsFile[] = "var/lib/vantor/settings.sqlite";

class ConfigurationServer final : public platform::VGBackgroundServiceDelegate,
                                  public platform::MessageReceiver {
 public:
  ConfigurationServer(const SettingsServers::Environment& environment)
      : environment_(environment), connection_(environment.connections.makeConnection()) {}

  void backgroundServiceDidFinishLaunching(const platform::Value& /*notification*/) override {
    connection_->setDelegate(&environment_.delegate);
    connection_->setRootObject(std::make_shared<platform::NSProtocolChecker>(
        this, environment_.protocols.find(kORBServiceManagerConfigurationServerStatusProtocol)));
    connection_->registerName("com.vantor.service.configd.status");
    settings_.emplace(environment_);
    post("com.vantor.notification.configd.didstart");
  }
  void backgroundServiceWillTerminate(const platform::Value& /*notification*/) override {
    post("com.vantor.notification.configd.willshutdown");
    settings_.reset();
    connection_->invalidate();
  }

  // The protocol has no other message.
  platform::MessageResult receiveMessage(std::string_view /*isServerUp*/,
                                         const platform::Array& /*arguments*/) override {
    return true;
  }

 private:
  void post(std::string_view name) {
    environment_.center.postNotificationName(name, std::nullopt, {},
                                             platform::NSNotificationPosting::kPostToAllSessions);
  }

  const SettingsServers::Environment environment_;
  std::shared_ptr<platform::NSConnection> connection_;  // shared with its clients' connections
  std::optional<SettingsServers> settings_;
};

// Other users may not read the settings, or the blobs that programs keep with them.
platform::Result<std::unique_ptr<SettingsStore>> openStore(platform::LinuxPlatform& linux,
                                                           const std::string& root) {
  const platform::Dictionary ours{{platform::NSFilePosixPermissions, 0700}};
  for (const auto& [folder, attributes] :
       {std::pair<std::string, const platform::Dictionary*>{
            platform::pathBelowRoot(root, kStateFolder), nullptr},
        {platform::pathBelowRoot(root, kSettingsFolder), &ours}}) {
    if (auto made = linux.fileManager.createDirectory(folder, attributes); !made) {
      return std::unexpected(
          platform::Error{platform::ErrorCode::kSystem, 0, made.error().localizedDescription});
    }
  }
  return SettingsStore::open(platform::pathBelowRoot(root, kSettingsFile),
                             SettingsServers::domainNames(), [&](std::string_view warning) {
                               linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_ERR, warning);
                             });
}

// Registers the product's defaults, which lie beside this program, by the domains' prefixes. A file
// that can't be read is only logged, since the product works without it, if not as intended.
void registerDefaults(platform::LinuxPlatform& linux, SettingsStore& store) {
  const std::string& program = linux.mainBundle.executablePath();
  const std::string path = program.substr(0, program.rfind('/') + 1) + "defaults.plist";
  const auto log = [&](const platform::Error& error) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_WARNING,
                            "the product's defaults: " + describe(error));
  };
  const auto defaults = platform::readPropertyListFile(path);
  if (!defaults && defaults.error().code == platform::ErrorCode::kNotFound) return;
  if (!defaults) return log(defaults.error());
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) {
    const platform::Dictionary* ofDomain = (*defaults)[domain.prefix].dictionary();
    if (ofDomain == nullptr) continue;
    const auto done = store.registerDefaults(domain.connectionName, *ofDomain);
    if (!done) log(done.error());
  }
}

// Reports on standard error, for a start by hand, and in the log.
int fail(platform::SystemLog* log, const platform::Error& error) {
  const std::string why = platform::describe(error);
  std::fputs(("configd: " + why + "\n").c_str(), stderr);
  if (log) log->asl_log(nullptr, platform::ASL_LEVEL_ERR, why);
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  auto made = platform::LinuxPlatform::make();
  if (!made) return fail(nullptr, made.error());
  platform::LinuxPlatform& linux = **made;
  const LoggerBinding logger(linux.systemLog);
  // Without its settings it does not serve, because clients would take features for switched off.
  // The job host starts it again, and until then everything stays as it is.
  const auto store = openStore(linux, linux.configuration.root);
  if (!store) return fail(&linux.systemLog, store.error());
  registerDefaults(linux, **store);
  platform::NotificationCenter localCenter;
  const platform::ListenerPlaces places(linux.configuration);
  platform::NamedConnections connections(
      *linux.runLoop, linux.peerTransport, localCenter, linux.systemLog,
      [&](std::string_view name) { return places.connection(name); });
  const auto center = platform::makeBusNotificationCenter(
      *linux.runLoop, platform::notificationBusAddress(linux.configuration), linux.systemLog);
  platform::ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  addGlobalSettingsProtocol(protocols);
  KLXConnectionAuthenticator authenticator(linux.systemInformation);
  platform::RefusalLog refusals(*linux.runLoop, linux.systemLog, "configd");
  platform::BackgroundServiceClasses classes;
  classes.add("ConfigurationServer", [&] {
    return std::make_unique<ConfigurationServer>(SettingsServers::Environment{
        connections, authenticator, protocols, *center, **store, refusals});
  });
  platform::BackgroundServiceHost host{*linux.runLoop, linux.terminationSignals, linux.readiness,
                                       classes};
  return platform::VGBackgroundServiceMain("ConfigurationServer", argc, argv, host);
}
