// The service manager's cost of reading a setting.

#include <memory>
#include <optional>
#include <string>

#include <benchmark/benchmark.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RawEcho.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Kit/SettingsServer/SettingsServers.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace benchmarks {
namespace {

using namespace platform;

const bool kRead =
    atMost({"setting-read", 1.5,
            "objectForKey: through the settings client, of the demo's settings "
            "server / an echo by libdbus alone, peer to peer, both processes pinned"});

// One program's objects for settings.
struct Program {
  explicit Program(const std::string& prefix)
      : program(*loop, transport,
                [prefix](std::string_view name) { return prefix + "." + std::string(name); }) {
    addGlobalSettingsProtocol(protocols);
  }

  std::unique_ptr<AsioRunLoop> loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport{*loop};
  ConnectedProgram program;
  FakeNotificationBus bus{*loop};
  std::unique_ptr<DistributedNotificationCenter> center = bus.makeCenter(program.log);
  ProtocolTable protocols;
  FakeSystemInformation system;
};

void serveSettings(const std::string& path, int started) {
  Program server(path);
  KLXConnectionAuthenticator authenticator(server.system);
  const auto store = SettingsStore::open(path + ".sqlite", SettingsServers::domainNames(),
                                         [](std::string_view) {});
  if (!store || !(*store)->set("com.vantor.CommonPreferences", "Enabled", 7)) return;
  RefusalLog refusals(*server.loop, server.program.log, "settings");
  const SettingsServers servers({server.program.connections, authenticator, server.protocols,
                                 *server.center, **store, refusals});
  sayStarted(started);
  server.loop->run();
}

void readSubject(benchmark::State& state) {
  const ServerProcess server(&serveSettings);
  if (!server.started()) return state.SkipWithError("no server");
  Program client(server.path());
  const auto settings = KLXGlobalSettingsClient::commonSettingsClientWithDelegate(
      {*client.loop, client.program.connections, *client.center, client.program.center,
       client.protocols, client.system},
      nullptr);
  for (auto _ : state) {
    if (settings->objectForKey("Enabled") != Value(7)) return state.SkipWithError("another answer");
  }
}
BENCHMARK(readSubject)->Name("setting-read/subject")->UseRealTime();
BENCHMARK(rawRoundTrips)->Name("setting-read/baseline")->UseRealTime();

}  // namespace
}  // namespace benchmarks
