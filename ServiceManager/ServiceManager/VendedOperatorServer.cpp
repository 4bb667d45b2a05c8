#include "ServiceManager/ServiceManager/VendedOperatorServer.h"

#include <utility>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Settings/SettingsSources.h"

using namespace platform;

namespace {

constexpr char kOperatorServer[] = "com.vantor.servicemanager.operator.server";

}  // namespace

struct VendedOperatorServer::Parts {
  explicit Parts(const Environment& environment)
      : sources(environment.worker.settingsClientFactories, delegate),
        report({.runLoop = environment.worker.runLoop,
                .system = environment.system,
                .extensions = environment.worker.extensions,
                .jobs = environment.worker.jobs,
                .sources = sources}),
        server({.runLoop = environment.worker.runLoop,
                .pictures = environment.pictures,
                .report = report,
                .main = environment.main,
                .mainThreadWork = environment.mainThreadWork,
                .events = environment.events}),
        authenticator(environment.system),
        connection(environment.worker.connections.makeConnection()) {
    connection->setDelegate(&authenticator);
    connection->registerName(kOperatorServer);
    connection->setRootObject(std::make_shared<NSProtocolChecker>(
        &server, environment.protocols.find(kORBServiceManagerOperatorProtocol)));
  }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;
  // Its delegate and its root object's target end here, and its children may last longer.
  ~Parts() { connection->invalidate(); }

  KLXGlobalSettingsClientDelegate delegate;
  SettingsSources sources;  // for probes
  OperatorReport report;
  ORBServiceManagerOperatorServer server;
  KLXConnectionAuthenticator authenticator;
  const std::shared_ptr<NSConnection> connection;
};

VendedOperatorServer::VendedOperatorServer(const Environment& environment)
    : worker_(environment.worker), parts_(std::make_shared<std::unique_ptr<Parts>>()) {
  worker_.perform([parts = parts_, environment] { *parts = std::make_unique<Parts>(environment); });
}

VendedOperatorServer::~VendedOperatorServer() {
  worker_.perform([parts = std::move(parts_)] { parts->reset(); });
}
