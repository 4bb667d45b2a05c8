// The cost of an evaluation beside its questions to other programs.

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/ProductProgram.h"
#include "Benchmarks/TurnUntil.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "JobHost/JobHost.h"
#include "JobHost/JobServer.h"
#include "JobHost/Processes/JobMark.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/RuntimeFolders.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Logger/Logger.h"
#include "Platform/Files/Bundle.h"
#include "Platform/Linux/Files/LinuxFileReader.h"
#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Processes/PidfdExitWatcher.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/PropertyLists/PropertyList.h"
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

namespace benchmarks {
namespace {

using namespace platform;

constexpr int kServices = 200;
constexpr int kSwitches = 4;  // of each, half of which match
constexpr char kPrimary[] = "com.example.configd";
constexpr char kProduct[] = "kKLXInstallTypeServerManagedID";
constexpr char kProductGuid[] = "5B13D7E2-8C40-4D9F-A27B-6E08F4C1B952";

const bool kAdded =
    atMost({"evaluation", 1.5,
            "an evaluation of 200 feature services with 4 switches each / one settings round trip "
            "for each switch, and two job-host round trips for each that matches"});

std::string labelOf(int number) { return "com.example.service" + std::to_string(number); }
std::string keyOf(int number) { return "switch" + std::to_string(number); }

// Every other setting is 1, the others 0.
struct Settings final : MessageReceiver {
  MessageResult receiveMessage(std::string_view, const Array& arguments) override {
    const std::string* key = arguments.front().string();
    return key && !key->empty() && (key->back() - '0') % 2 == 0 ? 1 : 0;
  }
};

void serveSettings(const TemporaryFolder& root, int started) {
  Settings settings;
  serveObject(root, started, "com.vantor.CommonPreferences", kKLXGlobalSettingsProtocol, settings);
}

void serveJobs(const TemporaryFolder& root, int started) {
  ProductProgram program(root);
  if (!makeConnectionsFolder(defaultPlatformConfiguration(root.path()))) return;
  const auto limit = raiseDescriptorLimit();
  const auto bootId = jobhost::readBootId();
  if (!limit || !bootId) return;
  const auto processes = jobhost::LinuxProcesses::create(*program.loop, *limit,
                                                         jobhost::hostMark(root.path(), *bootId));
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
  if (!server || !announceStart(started)) return;
  program.loop->run();
}

// The daemon with its services running, beside a settings server, a status server and a job host.
// Its run loop runs only in evaluate(), so it evaluates only then.
class Bed {
 public:
  Bed() {
    if (!settingsServer_.started() || !statusServer_.started() || !jobHost_.started()) return;
    install();
    manager_.backgroundServiceDidFinishLaunching({});
    evaluate();  // From now on all services run and are watched.
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
    std::ignore = jobs_.SMJobRemove(kSMDomainSystemLaunchd, kPrimary, nullptr, true);
  }

  bool isReady() const { return isReady_; }
  // Serves the loop until the evaluation has ended.
  void evaluate() {
    turnUntil(*program_.loop, [this] {
      return manager_.watchDog() && manager_.operatingMode() == ORBOperatingModeNormal;
    });
    manager_.evaluateSystemConfiguration();
    turnUntil(*program_.loop, [this] { return !manager_.isEvaluating(); });
  }
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
  static Dictionary service() { return {{"Products", Array{kProduct}}, {"JobSpec", job()}}; }
  Dictionary catalogue() const {
    Dictionary switches;
    for (int key = 0; key < kSwitches; ++key) switches.set(keyOf(key), 1);
    Dictionary services{{kPrimary, service()}};
    for (int i = 0; i < kServices; ++i) {
      Dictionary entry = service();
      entry.set("Features", Array{"feature"});
      services.set(labelOf(i), std::move(entry));
    }
    return {{"Primary", kPrimary},
            {"ProgramPath", root_.path()},
            {"ProductInfo", "product.plist"},
            {"ProductInfoKey", "GUID"},
            {"Services", std::move(services)},
            {"Features",
             Dictionary{
                 {"feature", Dictionary{{"Config", Array{Dictionary{{"Source", "common"},
                                                                    {"Switches", switches}}}}}}}}};
  }
  void install() {
    write("Service.plist", catalogue());
    write("product.plist", Dictionary{{"GUID", kProductGuid}});
    std::filesystem::copy_file("/bin/sleep", root_.path("sleep"));
  }
  void write(const char* name, Dictionary content) {
    const Data xml = writePropertyList(Value(std::move(content)), PropertyListFormat::kXml).value();
    root_.write(name, std::string(xml.begin(), xml.end()));
  }
  VantorDistantObject::Environment environment() {
    return {*program_.loop,  program_.connections, *bus_,
            program_.center, program_.protocols,   program_.system};
  }
  ServiceManagerPlatform platform() {
    // Another benchmark measures the check of an unchanged program.
    signatures_.addValid(root_.path("sleep"), SecStaticCode::Kind::kProgram, "sleep");
    signatures_.addValid(root_.path(), SecStaticCode::Kind::kBundle, "daemon");
    addSettingsClientFactories(factories_, environment());
    return {
        *program_.loop,
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
        [this](RunLoop::Callback work) { program_.loop->post(std::move(work)); },
        {},
        {[this](const std::string&, SettingsWorker::Work work) {
          program_.loop->post([this, work = std::move(work)]() mutable { work(settingsParts_); });
        }},
        {[](RunLoop::Callback work) { work(); },
         *program_.loop,
         program_.connections,
         jobs_,
         {extensions_, controls_, tasks_, "/"},
         factories_},
        [] { return nullptr; },
        xpc_.xpc,
        attributes_,
        [](std::function<void()>) {},
        [](const auto&) {}};
  }

  TemporaryFolder root_;
  // Forked before this process starts threads.
  const ProductServer jobHost_{root_, &serveJobs};
  const ProductServer settingsServer_{root_, &serveSettings};
  const ProductServer statusServer_{root_, &serveStatus};
  ProductProgram program_{root_};
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
  const Bundle bundle_{{root_.path(), root_.path("Info.plist"), root_.path("daemon"), root_.path()},
                       {}};
  SettingsClientFactories factories_;
  const SettingsParts settingsParts_{environment(), factories_};
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
