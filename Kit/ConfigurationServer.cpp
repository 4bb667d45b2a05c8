#include <optional>
#include <utility>

#include <vantor/ConfigurationServer.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Kit/ProgramParts.h"
#include "Kit/SettingsServer/SettingsServers.h"
#include "Kit/SettingsServer/SettingsStore.h"
#include "Kit/Values.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Logging/RefusalLog.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace vantor {
namespace {

constexpr char kStateFolder[] = "var/lib";
constexpr char kSettingsFolder[] = "var/lib/vantor";
constexpr char kSettingsFile[] = "var/lib/vantor/settings.sqlite";

// Other users may not read the settings, or the blobs that programs keep with them.
Result<void> makeSettingsFolder(platform::LinuxPlatform& linux) {
  const std::string& root = linux.configuration.root;
  const platform::Dictionary ours{{platform::NSFilePosixPermissions, 0700}};
  auto made =
      linux.fileManager.createDirectory(platform::pathBelowRoot(root, kStateFolder), nullptr);
  if (made) {
    made = linux.fileManager.createDirectory(platform::pathBelowRoot(root, kSettingsFolder), &ours);
  }
  if (!made) return Error{ErrorCode::kFailed, made.error().localizedDescription};
  return {};
}

std::optional<std::string> serverOfDomain(std::string_view domain,
                                          const std::vector<std::string>& ownDomains) {
  for (const GlobalSettingsDomain& known : kGlobalSettingsDomains)
    if (domain == known.prefix || domain == known.connectionName) return known.connectionName;
  for (const std::string& own : ownDomains)
    if (domain == own) return own;
  return std::nullopt;
}

}  // namespace

struct ConfigurationServerParts {
  // Answers the service manager's question whether the configuration server is up.
  class ServerStatus final : public platform::MessageReceiver {
   public:
    // The protocol has no other message.
    platform::MessageResult receiveMessage(std::string_view /*isServerUp*/,
                                           const platform::Array& /*arguments*/) override {
      return true;
    }
  };

  ConfigurationServerParts(ProgramParts& of, std::vector<std::string> domains,
                           std::unique_ptr<SettingsStore> opened)
      : program(of), ownDomains(std::move(domains)), store(std::move(opened)) {}
  ConfigurationServerParts(const ConfigurationServerParts&) = delete;
  ConfigurationServerParts& operator=(const ConfigurationServerParts&) = delete;
  ~ConfigurationServerParts() { endConnections(); }

  void post(std::string_view name) {
    program.center().postNotificationName(name, std::nullopt, {},
                                          platform::NSNotificationPosting::kPostToAllSessions);
  }

  void endConnections() {
    servers.reset();
    if (connection) connection->invalidate();
    connection.reset();
  }

  ProgramParts& program;
  const std::vector<std::string> ownDomains;
  const std::unique_ptr<SettingsStore> store;
  KLXConnectionAuthenticator authenticator{program.linux->systemInformation};
  platform::RefusalLog refusals{*program.linux->runLoop, program.linux->systemLog, program.name};
  ServerStatus status;
  std::shared_ptr<platform::NSConnection> connection;  // shared with its clients' connections
  std::optional<SettingsServers> servers;
};

Result<ConfigurationServer> ConfigurationServer::open(Program& program,
                                                      const std::vector<std::string>& ownDomains) {
  platform::LinuxPlatform& linux = *program.parts().linux;
  if (auto made = makeSettingsFolder(linux); !made) return made.error();
  std::vector<std::string> domains = SettingsServers::domainNames();
  domains.insert(domains.end(), ownDomains.begin(), ownDomains.end());
  auto store =
      SettingsStore::open(platform::pathBelowRoot(linux.configuration.root, kSettingsFile), domains,
                          [&](std::string_view warning) {
                            linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_ERR, warning);
                          });
  if (!store) return errorOf(store.error());
  return ConfigurationServer(
      std::make_unique<ConfigurationServerParts>(program.parts(), ownDomains, *std::move(store)));
}

ConfigurationServer::ConfigurationServer(std::unique_ptr<ConfigurationServerParts> parts)
    : parts_(std::move(parts)) {}
ConfigurationServer::ConfigurationServer(ConfigurationServer&& other) noexcept = default;
ConfigurationServer& ConfigurationServer::operator=(ConfigurationServer&& other) noexcept = default;
ConfigurationServer::~ConfigurationServer() = default;

Result<void> ConfigurationServer::registerDefaults(std::string_view domain,
                                                   const Dictionary& defaults) {
  const auto server = serverOfDomain(domain, parts_->ownDomains);
  if (!server) return Error{ErrorCode::kNotFound, std::string(domain) + ": no such domain"};
  const platform::Value values = ValueAccess::of(Value(defaults));
  const auto done = parts_->store->registerDefaults(*server, *values.dictionary());
  if (!done) return errorOf(done.error());
  return {};
}

void ConfigurationServer::start() {
  ProgramParts& program = parts_->program;
  parts_->connection = program.connections.makeConnection();
  parts_->connection->setDelegate(&parts_->authenticator);
  parts_->connection->setRootObject(std::make_shared<platform::NSProtocolChecker>(
      &parts_->status,
      program.protocols.find(kORBServiceManagerConfigurationServerStatusProtocol)));
  parts_->connection->registerName("com.vantor.service.configd.status");
  parts_->servers.emplace(
      SettingsServers::Environment{program.connections, parts_->authenticator, program.protocols,
                                   program.center(), *parts_->store, parts_->refusals},
      parts_->ownDomains);
  parts_->post("com.vantor.notification.configd.didstart");
}

void ConfigurationServer::stop() {
  parts_->post("com.vantor.notification.configd.willshutdown");
  parts_->endConnections();
}

}  // namespace vantor
