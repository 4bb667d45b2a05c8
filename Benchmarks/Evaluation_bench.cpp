// The cost of an evaluation beside its questions to other programs.

#include <csignal>
#include <memory>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "JobHost/JobHost.h"
#include "JobHost/JobServer.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/RuntimeFolders.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Logger/Logger.h"
#include "Platform/Linux/Files/LinuxFileReader.h"
#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/Processes/PidfdExitWatcher.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Files/FakeExtendedAttributes.h"
#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"
#include "Platform/Testing/KernelExtensions/FakeKernelExtensions.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Processes/FakeTasks.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeRandomDevice.h"
#include "Platform/Testing/XPC/FakeXPC.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/MonitoringRecord.h"

namespace benchmarks {
namespace {

using namespace platform;

constexpr int kServices = 200;
constexpr int kSwitches = 4;  // of each, half of which match

const bool kAdded =
    atMost({"evaluation", 1.5,
            "an evaluation of 200 feature services with 4 switches each / one settings round trip "
            "for each switch, and two job-host round trips for each that matches"});

class NullSink final : public LogSink {
 public:
  Result<void> write(const LogRecord&) override { return {}; }
};

std::string labelOf(int number) { return "com.example.service" + std::to_string(number); }
std::string keyOf(int number) { return "switch" + std::to_string(number); }

// Every other setting is 1, the others 0.
struct Settings final : MessageReceiver {
  MessageResult receiveMessage(std::string_view, const Array& arguments) override {
    const std::string* key = arguments.front().string();
    return key && !key->empty() && (key->back() - '0') % 2 == 0 ? 1 : 0;
  }
};

// One program's platform objects.
struct Program {
  explicit Program(const TemporaryFolder& root)
      : system(defaultPlatformConfiguration(root.path()), "/proc"),
        connections(*loop, transport, center, log, [&root](std::string_view name) {
          return pathOfConnection(root.path(), name);
        }) {
    addServiceManagerProtocols(protocols);
    addGlobalSettingsProtocol(protocols);
  }

  NullSink sink;
  SystemLog log{sink, "bench", ASL_LEVEL_DEBUG};
  std::unique_ptr<AsioRunLoop> loop = std::move(*AsioRunLoop::create());
  LinuxSystemInformation system;
  DBusPeerTransport transport{*loop};
  NotificationCenter center;
  NamedConnections connections;
  ProtocolTable protocols;
};

bool announce(int started) { return ::write(started, "y", 1) == 1; }

void serveSettings(const TemporaryFolder& root, int started) {
  Program program(root);
  KLXConnectionAuthenticator authenticator(program.system);
  Settings settings;
  const auto server = program.connections.makeConnection();
  server->setDelegate(&authenticator);
  server->setRootObject(std::make_shared<NSProtocolChecker>(
      &settings, program.protocols.find(kKLXGlobalSettingsProtocol)));
  if (!server->registerName("com.vantor.CommonPreferences") || !announce(started)) return;
  program.loop->run();
}

void serveJobs(const TemporaryFolder& root, int started) {
  Program program(root);
  if (!makeConnectionsFolder(defaultPlatformConfiguration(root.path()))) return;
  const auto limit = raiseDescriptorLimit();
  const auto bootId = jobhost::readBootId();
  if (!limit || !bootId) return;
  const auto processes = jobhost::LinuxProcesses::create(*program.loop, *limit);
  if (!processes) return;
  jobhost::JobHostOptions options;
  options.root = root.path();
  options.bootId = *bootId;
  const auto host =
      jobhost::JobHost::create(*program.loop, **processes, program.log, std::move(options));
  if (!host) return;
  const auto server =
      jobhost::JobServer::listen(*program.loop, program.transport, jobHostSocket(root.path()),
                                 ::geteuid(), **host, program.log);
  if (!server || !announce(started)) return;
  program.loop->run();
}

class ServerProcess {
 public:
  ServerProcess(const TemporaryFolder& root, void (*serve)(const TemporaryFolder&, int)) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    process_ = ::fork();
    if (process_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      serve(root, writeEnd.get());
      ::_exit(0);
    }
    writeEnd.reset();
    char ready = 0;
    started_ = ::read(readEnd.get(), &ready, 1) == 1;
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  bool started() const { return started_; }

 private:
  pid_t process_ = 0;
  bool started_ = false;
};

// The daemon with its services running, a settings server and a job host. It serves no clients.
class Bed {
 public:
  Bed() {
    if (!settingsServer_.started() || !jobHost_.started()) return;
    manager_.setServiceInfo(catalogue());
    manager_.setMonitoredProcessesInfo(records());
    manager_.evaluateSystemConfiguration();  // From now on all services run and are watched.
    client_ = KLXGlobalSettingsClient::commonSettingsClientWithDelegate(environment(), nullptr);
    isReady_ = manager_.isServiceBeingTrackedForRespawn(labelOf(kServices - 1)) &&
               client_->objectForKey(keyOf(0)) == Value(1);
  }
  Bed(const Bed&) = delete;
  Bed& operator=(const Bed&) = delete;
  ~Bed() {
    for (int i = 0; i < kServices; ++i) {
      std::ignore = jobs_.SMJobRemove(kSMDomainSystemLaunchd, labelOf(i), nullptr, true);
    }
    std::ignore = jobs_.SMJobRemove(kSMDomainSystemLaunchd, "com.example.configd", nullptr, true);
  }

  bool isReady() const { return isReady_; }
  void evaluate() { manager_.evaluateSystemConfiguration(); }
  void askTheSame() {
    for (int i = 0; i < kServices; ++i) {
      for (int key = 0; key < kSwitches; ++key) {
        if (client_->objectForKey(keyOf(key)) != Value(1)) continue;
        for (int question = 0; question < 2; ++question) {
          benchmark::DoNotOptimize(jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, labelOf(i)));
        }
      }
    }
  }

 private:
  static Dictionary job() {
    return {{"Program", "sleep"},
            {"ProgramArguments", Array{"sleep", "infinity"}},
            {"ThrottleInterval", 0}};
  }
  static Value catalogue() {
    Dictionary switches;
    for (int key = 0; key < kSwitches; ++key) switches.set(keyOf(key), 1);
    Dictionary services{{"com.example.configd", Dictionary{{"JobSpec", job()}}}};
    for (int i = 0; i < kServices; ++i) {
      services.set(labelOf(i), Dictionary{{"JobSpec", job()}, {"Features", Array{"feature"}}});
    }
    return Dictionary{
        {"Primary", "com.example.configd"},
        {"ProgramPath", "/bin"},
        {"Services", std::move(services)},
        {"Features",
         Dictionary{
             {"feature", Dictionary{{"Config", Array{Dictionary{{"Source", "common"},
                                                                {"Switches", switches}}}}}}}}};
  }
  static Dictionary records() {
    Dictionary records{{"com.example.configd", initialMonitoringRecord()}};
    for (int i = 0; i < kServices; ++i) records.set(labelOf(i), initialMonitoringRecord());
    return records;
  }
  VantorDistantObject::Environment environment() {
    return {*program_.loop,  program_.connections, *bus_,
            program_.center, program_.protocols,   program_.system};
  }
  ServiceManagerPlatform platform() {
    // Another benchmark measures the check of an unchanged program.
    signatures_.addValid("/bin/sleep", SecStaticCode::Kind::kProgram, "sleep");
    addSettingsClientFactories(factories_, environment());
    return {*program_.loop,
            jobs_,
            authorization_,
            exitWatcher_,
            files_,
            signatures_,
            random_,
            program_.system,
            program_.connections,
            *bus_,
            program_.center,
            program_.protocols,
            bundle_,
            {extensions_, controls_, tasks_, "/"},
            {},
            factories_,
            [] { return nullptr; },
            xpc_.xpc,
            attributes_,
            [](std::function<void()>) {},
            [](const auto&) {}};
  }

  TemporaryFolder root_;
  // Forked before this process starts threads.
  const ServerProcess jobHost_{root_, &serveJobs};
  const ServerProcess settingsServer_{root_, &serveSettings};
  Program program_{root_};
  AsioSerialQueues queues_{2};
  Logger2State logger2_{program_.log, queues_};
  Logger2Binding logger2Binding_{logger2_};
  LoggerBinding logger_{program_.log};
  VirtualRunLoop unusedLoop_;
  NotificationCenter unusedCenter_;
  FakeNotificationBus network_{unusedLoop_};
  std::unique_ptr<DistributedNotificationCenter> bus_ = network_.makeCenter(program_.log);
  JobHostClient hostClient_{program_.transport, *program_.loop, jobHostSocket(root_.path())};
  EmbeddedJobs jobs_{hostClient_};
  EmbeddedAuthorization authorization_{hostClient_};
  PidfdExitWatcher exitWatcher_{*program_.loop};
  LinuxFileReader files_;
  FakeCodeSignatures signatures_;
  FakeRandomDevice random_;
  const Bundle bundle_{{"/", "/", "/", "/"}, {}};
  SettingsClientFactories factories_;
  FakePeerNetwork unusedNetwork_{unusedLoop_};
  FakeXPC xpc_{unusedNetwork_, {}, program_.log};
  FakeExtendedAttributes attributes_;
  FakeKernelControls controls_{unusedLoop_};
  FakeKernelExtensions extensions_{unusedLoop_, controls_};
  FakeTasks tasks_{unusedCenter_, true};
  ORBServiceManager manager_{platform()};
  std::unique_ptr<KLXGlobalSettingsClient> client_;
  bool isReady_ = false;
};

void evaluationSubject(benchmark::State& state) {
  Bed bed;
  if (!bed.isReady()) return state.SkipWithError("the services do not run");
  for (auto _ : state) bed.evaluate();
}
BENCHMARK(evaluationSubject)->Name("evaluation/subject")->UseRealTime();

void evaluationBaseline(benchmark::State& state) {
  Bed bed;
  if (!bed.isReady()) return state.SkipWithError("the services do not run");
  for (auto _ : state) bed.askTheSame();
}
BENCHMARK(evaluationBaseline)->Name("evaluation/baseline")->UseRealTime();

}  // namespace
}  // namespace benchmarks
