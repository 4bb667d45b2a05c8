#include "Tools/servicemanagerctl/MetricsCommand.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/MetricsHttp.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"

using namespace platform;

namespace {

// A service manager that does not accept a connection in this time counts as down.
constexpr Duration kAcceptTime = std::chrono::seconds(2);
// A scraper has this long to send its request.
constexpr Duration kRequestTime = std::chrono::seconds(5);
// A thousand services are half a megabyte.
constexpr std::size_t kMaxMetricsBytes = std::size_t{64} * 1024 * 1024;

// Adds why services do not run. Without an answer the metrics have no reasons.
void addReasons(DaemonClient& daemon, MetricsReport::Manager& manager) {
  std::vector<std::string> down;
  for (const MetricsReport::Service& service : manager.services) {
    if (service.isRunning == false) down.push_back(service.label);
  }
  const auto reasons = askForReasons(daemon, down);
  if (!reasons) return remark(reasons.error().text);
  for (MetricsReport::Service& service : manager.services) {
    const std::string* reason = (*reasons)[service.label][kFactReason].string();
    if (reason) service.reason = *reason;
  }
}

// The request on standard input, as far as it comes in time.
std::string readRequest(RunLoop& loop) {
  const Instant deadline = loop.now() + kRequestTime;
  std::string request;
  std::array<char, 1024> part{};
  while (request.size() <= kMaxRequestBytes && !isWholeRequest(request)) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - loop.now()).count();
    pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    if (left <= 0 || ::poll(&input, 1, static_cast<int>(left)) <= 0) break;
    const ssize_t size =
        retryOnInterrupt([&] { return ::read(STDIN_FILENO, part.data(), part.size()); });
    if (size <= 0) break;
    request.append(part.data(), static_cast<std::size_t>(size));
  }
  return request;
}

std::optional<std::string> contentOfMetrics(const std::string& path) {
  const auto file = openRegularFile(path);
  if (!file) return std::nullopt;
  auto content = readToEnd(file->get(), kMaxMetricsBytes, path);
  if (!content) return std::nullopt;
  return *std::move(content);
}

}  // namespace

MetricsCommand::MetricsCommand(CLI::App& app)
    : metrics_(app.add_subcommand("metrics", "How everything is, for Prometheus")) {
  metrics_->add_option("--serve", file_,
                       "Answer one HTTP request on standard input with the metrics in this file");
}

int MetricsCommand::run(const DaemonClient::Environment& environment) const {
  MetricsReport report{.collected = environment.objects.loop.wallTime(), .manager = {}};
  if (auto manager = collect(environment)) {
    report.manager = *std::move(manager);
  } else {
    remark(manager.error().text);
    if (manager.error().exitStatus == kExitNotPermitted) return kExitNotPermitted;
  }
  print(asMetrics(report));
  return EXIT_SUCCESS;
}

Answer<MetricsReport::Manager> MetricsCommand::collect(
    const DaemonClient::Environment& environment) const {
  const ListenerPlace place = environment.place(kOperatorServer);
  const auto tried =
      environment.transport.connect(place.path, {.timeout = kAcceptTime, .servers = place.servers});
  if (!tried && tried.error().kind == PeerConnectFailure::Kind::kTimedOut)
    return std::unexpected(Refusal{kExitFailed, "the service manager does not answer"});
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  RunLoop& loop = environment.objects.loop;
  const Instant asked = loop.now();
  const auto overview = askAboutAllServices(daemon, "overviewFrom:");
  if (!overview) return std::unexpected(overview.error());
  const Duration answerTime = loop.now() - asked;
  std::vector<std::string> labels;
  if (const Dictionary* services = (*overview)[kFactServices].dictionary()) {
    for (const auto& [label, facts] : *services) labels.push_back(label);
  }
  const auto jobs = askForJobs(daemon, labels);
  if (!jobs) return std::unexpected(jobs.error());
  MetricsReport::Manager manager = managerIn(*overview, *jobs);
  manager.answerTime = answerTime;
  addReasons(daemon, manager);
  return manager;
}

int MetricsCommand::answerScraper(RunLoop& loop) const {
  letReaderLeave();  // A scraper that has gone is no failure.
  print(answerToScraper(readRequest(loop), contentOfMetrics(file_)));
  return EXIT_SUCCESS;
}
