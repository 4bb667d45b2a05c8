// The cost that the daemon adds to the job host, which starts and keeps the services: the time
// until a service is back, the time of each evaluation, of its start and of a question, and memory.
// One file, because all of them measure the same two daemons.

#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/ProductProgram.h"
#include "Benchmarks/RawEcho.h"
#include "Benchmarks/RealDaemon.h"
#include "Benchmarks/TurnUntil.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Logger/Logger.h"
#include "Platform/Files/Bundle.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/Files/LinuxFileReader.h"
#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/SystemFacts/DevRandom.h"
#include "Platform/Processes/RestartPolicy.h"
#include "Platform/Testing/Files/FakeExtendedAttributes.h"
#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"
#include "Platform/Testing/KernelExtensions/FakeKernelExtensions.h"
#include "Platform/Testing/XPC/FakeXPC.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace benchmarks {
namespace {

using namespace platform;

constexpr int kFewServices = 10;
constexpr int kManyServices = 1000;
constexpr int kRestarts = 10;
constexpr double kBytesPerService = 4096;  // with the copies of the picture for the operator

const bool kAdded[] = {
    atMost({"daemon-restart", 3,
            "SIGKILL of one of 10 services to its client told of the new process / SIGKILL of a "
            "job to its next process's first word, by the job host alone"}),
    atMost({"daemon-evaluation", 3,
            "evaluating a healthy service, of 1,000 / one SMJobCopyDictionary(), daemon and job "
            "host pinned"}),
    atMost({"daemon-evaluation-10000", 1.5,
            "evaluating a healthy service, of 10,000 / the same, of 1,000, with jobs that are only "
            "played"}),
    atMost({"daemon-1000-start", 1.7,
            "1,000 services from none to all running and watched / a loop of 1,000 forks and "
            "execs"}),
    atMost({"daemon-1000-submit", 2, "the same / submitting the same 1,000 jobs one by one"}),
    atMost({"daemon-memory", 1, "bytes (for ns) of the daemon for each of 1,000 services / 4096"}),
    atMost({"daemon-pid-for-service", 3,
            "pidForService: over an authenticated connection, which asks the job host / an echo by "
            "libdbus alone, all processes pinned"}),
};

// The daemon's class in this process, on the real platform, so that a single evaluation can be
// timed. It is started, in normal mode, with a catalogue of this many core services, none of which
// runs yet. Its run loop runs only in evaluate(), so the caller starts the first evaluation.
class DaemonInProcess {
 public:
  explicit DaemonInProcess(int services) {
    for (int i = 0; i < services; ++i) labels_.push_back(DaemonRoot::label(i));
    root_.setCatalogue(catalogue());
    awaitUnchangedFiles();
    addServiceManagerProtocols(protocols_);
    manager_.emplace(ServiceManagerPlatform{
        .runLoop = *linux_->runLoop,
        .jobs = jobs_,
        .authorization = authorization_,
        .exitWatcher = linux_->exitWatcher,
        .files = files_,
        .codeSignatures = *signatures_,
        .randomDevice = randomDevice_,
        .system = linux_->systemInformation,
        .connections = connections_,
        .distributedCenter = root_.center(),
        .notificationCenter = linux_->notificationCenter,
        .protocols = protocols_,
        .mainBundle = bundle_,
        .workersExtensions = {extensions_, controls_, linux_->tasks, root_.path()},
        .onExtensionWorker = [this](RunLoop::Callback work) { post(std::move(work)); },
        .owner = {},
        .settingsWorker = {[this](const std::string&, SettingsWorker::Work work) {
          post([this, work = std::move(work)]() mutable { work(settingsParts_); });
        }},
        .operatorWorker = {[](RunLoop::Callback work) { work(); },
                           *linux_->runLoop,
                           connections_,
                           jobs_,
                           {extensions_, controls_, linux_->tasks, root_.path()},
                           factories_},
        .makeHealthInfo = [] { return nullptr; },
        .xpc = xpc_.xpc,
        .attributes = attributes_,
        .observeJobHostReturn = [](std::function<void()>) {},
        .withSettingsOfThisThread = [](const auto&) {},
    });
    manager_->backgroundServiceDidFinishLaunching({});
    turnUntil(*linux_->runLoop, [this] {
      return manager_->watchDog() && manager_->operatingMode() == ORBOperatingModeNormal;
    });
  }

  // Serves the loop until the evaluation has ended.
  void evaluate() {
    manager_->evaluateSystemConfiguration();
    turnUntil(*linux_->runLoop, [this] { return !manager_->isEvaluating(); });
  }

  const std::vector<std::string>& labels() const { return labels_; }
  ORBServiceManager& manager() { return *manager_; }
  Jobs& jobs() { return jobs_; }
  ProcessId hostProcess() { return root_.host().hostProcess(); }
  bool allAreWatched() {
    for (const std::string& label : labels_) {
      if (!manager_->isServiceBeingTrackedForRespawn(label)) return false;
    }
    return !hasFailed();
  }

 private:
  void post(RunLoop::Callback work) { linux_->runLoop->post(std::move(work)); }

  // The primary service is the first measured one, not the configuration server.
  Dictionary catalogue() const {
    Dictionary entries;
    for (const std::string& label : labels_) entries.set(label, DaemonRoot::service(label));
    Dictionary catalogue = DaemonRoot::catalogue(0);
    catalogue.set("Primary", labels_.front());
    catalogue.set("Services", std::move(entries));
    return catalogue;
  }

  DaemonRoot root_;
  // Forked before this process starts threads.
  const ProductServer statusServer_{root_.folder(), &serveStatus};
  std::unique_ptr<LinuxPlatform> linux_ = std::move(*LinuxPlatform::makeAt(root_.path()));
  LoggerBinding logger_{linux_->systemLog};
  Logger2State logger2_{linux_->systemLog, linux_->utilityQueues};
  Logger2Binding logger2Binding_{logger2_};
  std::unique_ptr<LinuxCodeSignatures> signatures_ = std::move(
      *LinuxCodeSignatures::create(root_.path(), [this] { return linux_->runLoop->wallTime(); }));
  JobHostClient host_{linux_->peerTransport, *linux_->runLoop, jobHostSocket(root_.path())};
  EmbeddedJobs jobs_{host_};
  EmbeddedAuthorization authorization_{host_};
  LinuxFileReader files_;
  DevRandom randomDevice_;
  NamedConnections connections_{
      *linux_->runLoop, linux_->peerTransport, linux_->notificationCenter, linux_->systemLog,
      [this](std::string_view name) { return pathOfConnection(root_.path(), name); }};
  ProtocolTable protocols_;
  const Bundle bundle_{bundleLayoutOfExecutable(root_.daemonProgram()), {}};
  SettingsClientFactories factories_;
  const SettingsParts settingsParts_{
      {*linux_->runLoop, connections_, root_.center(), linux_->notificationCenter, protocols_,
       linux_->systemInformation},
      factories_};
  // not used by the benchmark
  VirtualRunLoop unusedLoop_;
  FakePeerNetwork unusedNetwork_{unusedLoop_};
  FakeXPC xpc_{unusedNetwork_, {}, linux_->systemLog};
  FakeKernelControls controls_{unusedLoop_};
  FakeKernelExtensions extensions_{unusedLoop_, controls_};
  FakeExtendedAttributes attributes_;
  std::vector<std::string> labels_;
  std::optional<ORBServiceManager> manager_;
};

void restartSubject(benchmark::State& state) {
  RealDaemon daemon(kFewServices);
  if (!daemon.isReady()) return state.SkipWithError("no daemon");
  UserInterfaceClient& client = daemon.client();
  client.registerClient();
  const std::string label = DaemonRoot::label(0);
  client.onNotice = [&](const UserInterfaceClient::Notice& notice) {
    if (notice.status == 1) daemon.root().loop().stop();
  };
  for (auto _ : state) {
    // It answers when it has evaluated all services for the previous change.
    const MessageResult process = client.ask("pidForService:", {label});
    if (!process || !process->integer()) return state.SkipWithError("no process");
    client.forgetNotices();
    // A job that ends sooner is started again after a pause.
    std::this_thread::sleep_for(kGoodRun);
    const auto start = Clock::now();
    ::kill(static_cast<pid_t>(*process->integer()), SIGKILL);
    while (!client.hasNotice(label, 1)) daemon.root().loop().run();
    state.SetIterationTime(since(start));
  }
}
BENCHMARK(restartSubject)->Name("daemon-restart/subject")->UseManualTime()->Iterations(kRestarts);

void restartBaseline(benchmark::State& state) {
  DaemonRoot root;
  const std::string label = DaemonRoot::label(0);
  Dictionary job = *DaemonRoot::service(label)["JobSpec"].dictionary();
  job.set("Label", label);
  job.set("Program", root.folder().path("opt/agent"));
  job.set("KeepAlive", true);
  job.set("StandardOutPath", root.host().outputPath());
  if (!root.jobs().SMJobSubmit(kSMDomainSystemLaunchd, Value(job), nullptr) ||
      root.host().nextOutput() != "ready") {
    return state.SkipWithError("no job");
  }
  for (auto _ : state) {
    const ProcessId process = root.processOf(label);
    std::this_thread::sleep_for(kGoodRun);
    const auto start = Clock::now();
    ::kill(process, SIGKILL);
    if (root.host().nextOutput() != "ready") return state.SkipWithError("no next process");
    state.SetIterationTime(since(start));
  }
}
BENCHMARK(restartBaseline)->Name("daemon-restart/baseline")->UseManualTime()->Iterations(kRestarts);

// This process and its job host, each on a processor.
class Pinned {
 public:
  explicit Pinned(ProcessId host) {
    ::sched_getaffinity(0, sizeof before_, &before_);
    pinTo(0);
    pinTo(1, host);
  }
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;
  ~Pinned() { ::sched_setaffinity(0, sizeof before_, &before_); }

 private:
  cpu_set_t before_{};
};

void evaluationSubject(benchmark::State& state) {
  DaemonInProcess daemon(kManyServices);
  daemon.evaluate();
  if (!daemon.allAreWatched()) return state.SkipWithError("not all services run");
  const Pinned pinned(daemon.hostProcess());
  for (auto _ : state) {
    const auto start = Clock::now();
    daemon.evaluate();
    state.SetIterationTime(since(start) / kManyServices);
  }
}
BENCHMARK(evaluationSubject)->Name("daemon-evaluation/subject")->UseManualTime()->Iterations(10);

void evaluationBaseline(benchmark::State& state) {
  DaemonInProcess daemon(kFewServices);
  daemon.evaluate();
  if (!daemon.allAreWatched()) return state.SkipWithError("not all services run");
  const Pinned pinned(daemon.hostProcess());
  const std::string& label = daemon.labels().back();
  for (auto _ : state) {
    if (daemon.jobs().SMJobCopyDictionary(kSMDomainSystemLaunchd, label)["PID"].isNil()) {
      return state.SkipWithError("no process");
    }
  }
}
BENCHMARK(evaluationBaseline)->Name("daemon-evaluation/baseline")->UseRealTime();

// The daemon's class on a fake machine, where any number of processes costs nothing.
class FakeMachineDaemon : public ServiceManagerFixture {
 public:
  explicit FakeMachineDaemon(int services) {
    Dictionary entries{{kPrimary, entry("program")}};
    for (int i = 1; i < services; ++i) entries.set(DaemonRoot::label(i), entry("program"));
    use(catalogue(std::move(entries)));
    evaluate();
  }

  void evaluate() {
    manager().evaluateSystemConfiguration();
    loop_.runReady();
    queues_.runPending();
    logSink_.take();
  }

 private:
  void TestBody() override {}
};

void evaluateOnFakeMachine(benchmark::State& state) {
  const auto services = static_cast<int>(state.range(0));
  FakeMachineDaemon daemon(services);
  for (auto _ : state) {
    const auto start = Clock::now();
    daemon.evaluate();
    state.SetIterationTime(since(start) / services);
  }
}
BENCHMARK(evaluateOnFakeMachine)
    ->Name("daemon-evaluation-10000/subject")
    ->Arg(10'000)
    ->UseManualTime()
    ->Iterations(5);
BENCHMARK(evaluateOnFakeMachine)
    ->Name("daemon-evaluation-10000/baseline")
    ->Arg(1000)
    ->UseManualTime()
    ->Iterations(5);

void startSubject(benchmark::State& state) {
  for (auto _ : state) {
    DaemonInProcess daemon(kManyServices);
    const auto start = Clock::now();
    daemon.evaluate();
    state.SetIterationTime(since(start));
    if (!daemon.allAreWatched()) return state.SkipWithError("not all services run");
  }
}
BENCHMARK(startSubject)->Name("daemon-1000-start/subject")->UseManualTime()->Iterations(1);
BENCHMARK(startSubject)->Name("daemon-1000-submit/subject")->UseManualTime()->Iterations(1);

void startBaseline(benchmark::State& state) {
  std::string name = DaemonRoot::label(0);
  char* const arguments[] = {name.data(), nullptr};
  for (auto _ : state) {
    std::vector<pid_t> processes;
    int ends[2];  // Each process holds the writing end until it executes its program.
    if (::pipe2(ends, O_CLOEXEC) != 0) return state.SkipWithError("pipe2");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    const auto start = Clock::now();
    for (int i = 0; i < kManyServices; ++i) {
      const pid_t process = ::fork();
      if (process == 0) {
        ::dup2(null.get(), STDOUT_FILENO);
        ::execv(JOB_PROGRAM, arguments);
        ::_exit(127);
      }
      processes.push_back(process);
    }
    writer.reset();
    char byte = 0;
    const bool areRunning = ::read(reader.get(), &byte, 1) == 0;
    state.SetIterationTime(since(start));
    for (const pid_t process : processes) {
      ::kill(process, SIGKILL);
      ::waitpid(process, nullptr, 0);
    }
    if (!areRunning) return state.SkipWithError("read");
  }
}
BENCHMARK(startBaseline)->Name("daemon-1000-start/baseline")->UseManualTime()->Iterations(1);

void submitBaseline(benchmark::State& state) {
  for (auto _ : state) {
    DaemonInProcess daemon(kManyServices);
    const Value catalogue = daemon.manager().serviceInfo();
    const auto start = Clock::now();
    for (const std::string& label : daemon.labels()) {
      const auto submitted = daemon.jobs().SMJobSubmit(
          kSMDomainSystemLaunchd, ORBServiceManager::jobInfoWithLabel(label, catalogue), nullptr);
      if (!submitted) return state.SkipWithError("a submission was refused");
    }
    state.SetIterationTime(since(start));
  }
}
BENCHMARK(submitBaseline)->Name("daemon-1000-submit/baseline")->UseManualTime()->Iterations(1);

// The private memory of the process, with its page tables.
std::optional<double> memoryOf(ProcessId process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  std::optional<double> bytes;
  for (std::string name; status >> name;) {
    double kilobytes = 0;
    if ((name == "RssAnon:" || name == "VmPTE:") && status >> kilobytes) {
      bytes = bytes.value_or(0) + kilobytes * 1024;
    }
  }
  return bytes;
}

std::optional<double> memoryWith(int services) {
  RealDaemon daemon(services);
  if (!daemon.isReady()) return std::nullopt;
  return memoryOf(daemon.root().processOf(DaemonRoot::kDaemon));
}

void memorySubject(benchmark::State& state) {
  for (auto _ : state) {
    const auto little = memoryWith(1);
    const auto much = memoryWith(1 + kManyServices);
    if (!little || !much) return state.SkipWithError("no daemon");
    state.SetIterationTime((*much - *little) / kManyServices * 1e-9);
  }
}
BENCHMARK(memorySubject)->Name("daemon-memory/subject")->UseManualTime()->Iterations(1);

void memoryBaseline(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(kBytesPerService * 1e-9);
}
BENCHMARK(memoryBaseline)->Name("daemon-memory/baseline")->UseManualTime()->Iterations(1);

void pidSubject(benchmark::State& state) {
  RealDaemon daemon(kFewServices);
  if (!daemon.isReady()) return state.SkipWithError("no daemon");
  const std::string label = DaemonRoot::label(0);
  const MessageResult process = Value(daemon.root().processOf(label));
  const Pinned pinned(daemon.root().processOf(DaemonRoot::kDaemon));
  pinTo(0, daemon.root().host().hostProcess());
  for (auto _ : state) {
    if (daemon.client().ask("pidForService:", {label}) != process)
      return state.SkipWithError("another answer");
  }
}
BENCHMARK(pidSubject)->Name("daemon-pid-for-service/subject")->UseRealTime();

BENCHMARK(rawRoundTrips)->Name("daemon-pid-for-service/baseline")->UseRealTime();

}  // namespace
}  // namespace benchmarks
