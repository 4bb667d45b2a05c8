// The cost that the registry of endpoints adds to the transport, and the cost of the
// executable-information service beside a hash.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RawEcho.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Platform/Linux/Certificates/CertificateMaker.h"
#include "Platform/Linux/Certificates/IdentityFiles.h"
#include "Platform/Linux/CodeSigning/CodeSigner.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/Files/LinuxExtendedAttributes.h"
#include "Platform/Linux/Logging/FileLogSink.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace benchmarks {
namespace {

using namespace platform;

constexpr std::size_t kLargeBytes = std::size_t{256} << 20;
// A file that has just been written is not cached.
constexpr useconds_t kUntilCached = 2'200'000;

constexpr std::chrono::sys_seconds kFrom = std::chrono::sys_days{std::chrono::January / 1 / 2020};
constexpr std::chrono::sys_seconds kSigned = std::chrono::sys_days{std::chrono::January / 1 / 2025};
constexpr std::chrono::sys_seconds kNow = std::chrono::sys_days{std::chrono::January / 1 / 2060};
constexpr std::chrono::sys_seconds kTo = std::chrono::sys_days{std::chrono::January / 1 / 2070};

const bool kAdded[] = {
    atMost({"registry-lookup", 2,
            "a name's endpoint from the registry / a round trip by libdbus alone that "
            "passes one descriptor, both pinned"}),
    atMost({"execinfo-large", 1 / 0.9,
            "execinfo of a signed program of 256 MiB that was seen before, warm, asked of the "
            "service / sha256sum of the same"}),
    atMost({"execinfo-signed", 20,
            "signing and source of a signed program seen before / a round trip by libdbus alone"}),
};

WallTime timeOfChecks() { return kNow; }

// The last user's home has no record of these files.
struct LastUser final : ExecInfoHandlerDelegate {
  Value getLastLoggedInUserHomeDirectory() override { return "/nonexistent"; }
};

// The two services as the daemon has them, with its log, in a process of the same priority.
void serveXPC(const std::string& path, int started) {
  const std::string root = path + "-root";
  std::filesystem::create_directories(root + "/run/vantor/mach");
  FileLogSink sink(path + ".log");
  SystemLog log(sink, "server");
  AsioSerialQueues queues(1, AsioSerialQueues::Work::kBackground);
  Logger2State logger(log, queues);
  const Logger2Binding binding(logger);
  VirtualRunLoop loop;
  FakeNotificationBus bus(loop);
  const auto center = bus.makeCenter(log);
  const LinuxSystemInformation system(defaultPlatformConfiguration(root), "/proc");
  const auto signatures = LinuxCodeSignatures::create(root, &timeOfChecks);
  if (!signatures) return;
  LinuxExtendedAttributes attributes;
  ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  const auto xpc =
      LinuxXPC::make(log, ListenerPlaces(defaultPlatformConfiguration(root)), std::nullopt);
  if (!xpc) return;
  const auto registry =
      std::make_shared<ORBServiceManagerXPCHandler>(loop, system, *center, protocols);
  const auto listener = (*xpc)->xpc().makeListener(kEndpointRegistryService);
  listener->setDelegate(registry);
  listener->resume();
  const auto info = std::make_shared<ORBExecInfoHandler>(
      ORBExecInfoHandler::Environment{**signatures, attributes, protocols},
      std::make_shared<LastUser>());
  const auto infoListener = (*xpc)->xpc().makeAnonymousListener();
  infoListener->setDelegate(info);
  infoListener->resume();
  registry->registerXPCListenerEndpoint(infoListener->endpoint(), kExecInfoEndpoint);
  sayStarted(started);
  for (;;) ::pause();
}

// A client of the two services in this process.
struct Client {
  explicit Client(const ServerProcess& server) : registry(server.path() + "-root", system) {}

  LinuxSystemInformation system{defaultPlatformConfiguration("/"), "/proc"};
  RegistryClient registry;
};

// In the style of these clients: each reply sends the next request.
class Chain {
 public:
  Chain(NSXPCConnection& connection, Array question)
      : connection_(connection), question_(std::move(question)) {}

  // Whether all answers were right.
  bool lookUp(int times) {
    left_ = times;
    done_ = {};
    ask();
    return done_.get_future().get();
  }

 private:
  void ask() {
    connection_.sendMessage(
        RegistryClient::kLookUp, question_,
        [this](const Array& found) {
          if (found.empty() || !endpointIn(found.front())) return done_.set_value(false);
          if (--left_ == 0) return done_.set_value(true);
          ask();
        },
        [this](const NSError&) { done_.set_value(false); });
  }

  NSXPCConnection& connection_;
  const Array question_;
  int left_ = 0;
  std::promise<bool> done_;
};

void lookUp(benchmark::State& state) {
  constexpr int kAtOnce = 64;
  const ServerProcess server(&serveXPC);
  if (!server.started()) return state.SkipWithError("no server");
  Client client(server);
  const auto connection = client.registry.connect();
  Chain chain(*connection, {client.registry.passkey(), Value(kExecInfoEndpoint)});
  while (state.KeepRunningBatch(kAtOnce)) {
    if (!chain.lookUp(kAtOnce)) return state.SkipWithError("no endpoint");
  }
}
BENCHMARK(lookUp)->Name("registry-lookup/subject")->UseRealTime();

void rawDescriptors(benchmark::State& state) {
  const ServerProcess server(&serveRawDescriptor);
  if (!server.started()) return state.SkipWithError("no server");
  const RawEchoClient client(server.path());
  if (!client.isConnected()) return state.SkipWithError("no connection");
  for (auto _ : state) {
    if (!client.roundTripForDescriptor()) return state.SkipWithError("no descriptor");
  }
}
BENCHMARK(rawDescriptors)->Name("registry-lookup/baseline")->UseRealTime();

void writeLarge(const std::string& path) {
  std::ofstream file(path, std::ios::binary);
  const std::vector<char> piece(std::size_t{1} << 20, 'x');
  for (std::size_t done = 0; done < kLargeBytes; done += piece.size()) {
    file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
  }
}

// A file of that size in the server's root, signed by an authority that the server trusts; the
// empty text if that is impossible.
std::string largeProgram(const ServerProcess& server) {
  const std::string root = server.path() + "-root";
  const auto authority =
      makeIdentity(authorityRequest("Authority", kFrom, kTo), makeEcKey("P-256").value(), nullptr);
  if (!authority) return {};
  CertificateRequest request;
  request.commonName = "Signer";
  request.notBefore = kFrom;
  request.notAfter = kTo;
  const auto signer = makeIdentity(request, makeEcKey("P-256").value(), &*authority);
  const auto anchor = pemOfCertificate(authority->chain.front().get());
  if (!signer || !anchor) return {};
  for (const char* folder : {"/etc/vantor/anchors", "/opt"}) {
    std::filesystem::create_directories(root + folder);
  }
  std::ofstream(root + "/etc/vantor/anchors/authority.pem") << *anchor;
  const std::string path = root + "/opt/large";
  writeLarge(path);
  return signProgram(path, *signer, {"com.vantor.sample", kSigned}) ? path : std::string();
}

void execInfoOfLarge(benchmark::State& state) {
  ::umask(022);  // A file that others may write is not trusted.
  const ServerProcess server(&serveXPC);
  if (!server.started()) return state.SkipWithError("no server");
  Client client(server);
  const auto service = client.registry.connectToExecInfo();
  if (!service) return state.SkipWithError("no service");
  const std::string path = largeProgram(server);
  ::usleep(kUntilCached);
  const auto isAnswered = [&] {
    const auto told = RegistryClient::ask(*service, RegistryClient::kExecInfo, {Value(path)});
    return told && told->at(0) == Value("valid: com.vantor.sample") && told->at(1) != Value("");
  };
  if (!isAnswered()) return state.SkipWithError("not valid");
  for (auto _ : state) {
    if (!isAnswered()) return state.SkipWithError("no hash");
  }
}
BENCHMARK(execInfoOfLarge)
    ->Name("execinfo-large/subject")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void sumOfLarge(benchmark::State& state) {
  const TemporaryFolder folder;
  const std::string path = folder.path("large");
  writeLarge(path);
  const std::string command = "sha256sum '" + path + "' >/dev/null";
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("sha256sum failed");
  }
}
BENCHMARK(sumOfLarge)
    ->Name("execinfo-large/baseline")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The handler in this process, so that these two can be timed alone.
void signingAndSource(benchmark::State& state) {
  DaemonRoot root;
  const std::string program = root.folder().path("opt/agent");
  ::setxattr(program.c_str(), "user.xdg.origin.url", "https://example.com/agent", 25, 0);
  auto signatures =
      LinuxCodeSignatures::create(root.path(), [&] { return root.loop().wallTime(); });
  const bool hasFailed = testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
  if (!signatures || hasFailed) return state.SkipWithError("no root");
  LinuxExtendedAttributes attributes;
  ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  const auto handler = std::make_shared<ORBExecInfoHandler>(
      ORBExecInfoHandler::Environment{**signatures, attributes, protocols}, nullptr);
  ::usleep(kUntilCached);
  for (auto _ : state) {
    if (handler->calculateSigningForPath(program) != "valid: com.vantor.test") {
      return state.SkipWithError("not valid");
    }
    benchmark::DoNotOptimize(handler->calculateSourceUrlForPath(program));
  }
}
BENCHMARK(signingAndSource)->Name("execinfo-signed/subject")->UseRealTime();
BENCHMARK(rawRoundTrips)->Name("execinfo-signed/baseline")->UseRealTime();

}  // namespace
}  // namespace benchmarks
