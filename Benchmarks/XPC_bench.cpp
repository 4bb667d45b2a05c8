// What the registry of endpoints adds to the transport, and what the executable-information service
// needs beside a hash.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RawEcho.h"
#include "Platform/Linux/LinuxCodeSignatures.h"
#include "Platform/Linux/LinuxExtendedAttributes.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace benchmarks {
namespace {

using namespace platform;

constexpr std::size_t kLargeBytes = std::size_t{256} << 20;

const bool kAdded[] = {
    atMost({"registry-lookup", 2,
            "a name's endpoint from the daemon's registry / a round trip by libdbus alone that "
            "passes one descriptor, both pinned"}),
    atMost({"execinfo-large", 1 / 0.9,
            "execinfo of a file of 256 MiB, warm, asked of the daemon / sha256sum of the same"}),
    atMost({"execinfo-signed", 20,
            "signing and source of a signed program seen before / a round trip by libdbus alone"}),
};

bool hasFailed() { return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed(); }

// The real daemon, on one processor; the calling thread and those that it makes are on the other.
class PinnedDaemon {
 public:
  PinnedDaemon() {
    ::sched_getaffinity(0, sizeof(before_), &before_);
    root_.setCatalogue(DaemonRoot::catalogue(1));
    root_.startDaemon();
    root_.awaitStart();
    const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
    const std::filesystem::path tasks = "/proc/" + std::to_string(daemon) + "/task";
    for (const auto& entry : std::filesystem::directory_iterator(tasks)) {
      pinTo(1, std::stoi(entry.path().filename()));
    }
    pinTo(0);
    client_.emplace(root_.path(), root_.system());
  }
  PinnedDaemon(const PinnedDaemon&) = delete;
  PinnedDaemon& operator=(const PinnedDaemon&) = delete;
  ~PinnedDaemon() { ::sched_setaffinity(0, sizeof(before_), &before_); }

  bool isReady() const { return !hasFailed(); }
  DaemonRoot& root() { return root_; }
  RegistryClient& client() { return *client_; }

 private:
  cpu_set_t before_{};
  DaemonRoot root_;
  std::optional<RegistryClient> client_;
};

void lookUp(benchmark::State& state) {
  PinnedDaemon daemon;
  if (!daemon.isReady()) return state.SkipWithError("no daemon");
  RegistryClient& client = daemon.client();
  const auto connection = client.connect();
  const Array question{client.passkey(), Value(kExecInfoEndpoint)};
  for (auto _ : state) {
    const auto found = RegistryClient::ask(*connection, RegistryClient::kLookUp, question);
    if (!found || !endpointIn(found->front())) return state.SkipWithError("no endpoint");
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

const std::string& largeFile() {
  static const TemporaryFolder folder;
  static const std::string path = [] {
    std::string made = folder.path("large");
    std::ofstream file(made, std::ios::binary);
    const std::vector<char> piece(std::size_t{1} << 20, 'x');
    for (std::size_t done = 0; done < kLargeBytes; done += piece.size()) {
      file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    }
    return made;
  }();
  return path;
}

void execInfoOfLarge(benchmark::State& state) {
  PinnedDaemon daemon;
  if (!daemon.isReady()) return state.SkipWithError("no daemon");
  const auto service = daemon.client().connectToExecInfo();
  if (!service) return state.SkipWithError("no service");
  const std::string& path = largeFile();
  for (auto _ : state) {
    const auto told = RegistryClient::ask(*service, RegistryClient::kExecInfo, {Value(path)});
    if (!told || told->at(1) == Value("")) return state.SkipWithError("no hash");
  }
}
BENCHMARK(execInfoOfLarge)
    ->Name("execinfo-large/subject")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void sumOfLarge(benchmark::State& state) {
  const std::string command = "sha256sum '" + largeFile() + "' >/dev/null";
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
  if (!signatures || hasFailed()) return state.SkipWithError("no root");
  LinuxExtendedAttributes attributes;
  ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  const auto handler = std::make_shared<ORBExecInfoHandler>(
      ORBExecInfoHandler::Environment{**signatures, attributes, protocols}, nullptr);
  ::usleep(2'200'000);  // A file that has just been written is not remembered.
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
