#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

namespace {

std::string lineOf(const char* what, std::string_view label) {
  return stringWithFormat("Reported %s for service: %@", what, label);
}

// The result of `query`, which runs after everything that was queued before.
template <typename Query>
auto answerOf(SerialQueue& queue, Query query) {
  decltype(query()) answer{};
  queue.sync([&] { answer = query(); });
  return answer;
}

}  // namespace

ORBServiceManagerHealthInfo::ORBServiceManagerHealthInfo(const Environment& environment)
    : taskQueue_(environment.queues.makeQueue(kQueueLabel)),
      connectionAuthenticator_(std::make_unique<KLXConnectionAuthenticator>(environment.system)),
      rootObject_(std::make_shared<NSProtocolChecker>(
          this, environment.protocols.find(kServiceManagerHealthProtocol))),
      distantConnection_(environment.connections.makeConnection()) {
  vantorlogger2_open(kClassName, mach_thread_self());
  distantConnection_->setRootObject(rootObject_);
  // Without its name the connection leads nowhere, and there is nobody to authenticate.
  if (!distantConnection_->registerName(kConnectionName)) return;
  distantConnection_->setDelegate(connectionAuthenticator_.get());
}

ORBServiceManagerHealthInfo::~ORBServiceManagerHealthInfo() {
  // End the connection and wait for the queue: the connection's delegate, its root object's target
  // and the tables that queued reports change are about to be destroyed.
  distantConnection_->invalidate();
  taskQueue_->sync([] {});
  vantorlogger2_close(mach_thread_self());
}

// Reports.

void ORBServiceManagerHealthInfo::setMonitoredServices(const std::vector<std::string>& labels) {
  taskQueue_->async([this, labels] {
    for (const std::string& label : labels) setStatus(label, HealthStatus::kUnready);
    readyToReport_ = true;
  });
}

void ORBServiceManagerHealthInfo::stopMonitoringForService(std::string_view label) {
  taskQueue_->async([this, label = std::string(label)] { serviceStates_.remove(label); });
}

void ORBServiceManagerHealthInfo::reportUnreadyStateForService(std::string_view label) {
  report(label, HealthStatus::kUnready, "unready state");
}

void ORBServiceManagerHealthInfo::reportStartForService(std::string_view label) {
  report(label, HealthStatus::kRunning, "running state");
}

void ORBServiceManagerHealthInfo::reportStopForService(std::string_view label) {
  report(label, HealthStatus::kStopped, "stop");
}

void ORBServiceManagerHealthInfo::reportForcedStopForService(std::string_view label) {
  taskQueue_->async([this, label = std::string(label)] {
    vantorlogger2_line(ASL_LEVEL_DEBUG, lineOf("forced stop", label));
    const auto known = status(label);
    // We or the installer told it to end.
    if (known == HealthStatus::kStopped || known == HealthStatus::kUpdating) return;
    crashCounters_.set(label, crashCounters_[label].integer().value_or(0) + 1);
    setStatus(label, HealthStatus::kUnready);
  });
}

void ORBServiceManagerHealthInfo::reportIntallerEventStartedForService(std::string_view label) {
  vantorlogger2_line(ASL_LEVEL_DEBUG, lineOf("installer event", label));
  taskQueue_->async([this, label = std::string(label)] {
    readyToReport_ = false;
    setStatus(label, HealthStatus::kUpdating);
  });
}

void ORBServiceManagerHealthInfo::reportInstallerEventFinished() {
  taskQueue_->async([this] {
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Reported installer event finish");
    readyToReport_ = true;
    const Dictionary before = serviceStates_;
    for (const auto& [label, value] : before) {
      if (status(label) == HealthStatus::kUpdating) setStatus(label, HealthStatus::kRunning);
    }
  });
}

void ORBServiceManagerHealthInfo::report(std::string_view label, HealthStatus status,
                                         const char* what) {
  taskQueue_->async([this, label = std::string(label), status, what] {
    setStatus(label, status);
    vantorlogger2_line(ASL_LEVEL_DEBUG, lineOf(what, label));
  });
}

// Queries.

std::set<std::string> ORBServiceManagerHealthInfo::problemServices() {
  return answerOf(*taskQueue_, [this] {
    std::set<std::string> problems;
    for (const auto& [label, value] : serviceStates_) {
      if (status(label) == HealthStatus::kUnready) problems.insert(label);
    }
    return problems;
  });
}

Value ORBServiceManagerHealthInfo::getHealthStateForServices() {
  return answerOf(*taskQueue_, [this] { return summarize(); });
}

Value ORBServiceManagerHealthInfo::healthRecord() {
  return answerOf(*taskQueue_, [this] { return record(); });
}

void ORBServiceManagerHealthInfo::takeHealthRecord(std::move_only_function<void(Value)> take) {
  SerialQueue::Block block = [this, take = std::move(take)]() mutable { take(record()); };
  if (!taskQueue_->trySync(block)) taskQueue_->async(std::move(block));
}

// On the queue.

void ORBServiceManagerHealthInfo::setStatus(std::string_view label, HealthStatus status) {
  serviceStates_.set(label, std::to_underlying(status));
}

std::optional<HealthStatus> ORBServiceManagerHealthInfo::status(std::string_view label) const {
  const auto number = serviceStates_[label].integer();
  return number ? std::optional(static_cast<HealthStatus>(*number)) : std::nullopt;
}

std::string ORBServiceManagerHealthInfo::nameToReport(const std::string& label) const {
  const auto found = serviceNamesToReport_.find(label);
  return found == serviceNamesToReport_.end() ? label : found->second;
}

std::optional<std::int64_t> ORBServiceManagerHealthInfo::health(const std::string& label,
                                                                HealthStatus status) const {
  const auto crashes = crashCounters_[label].integer();
  if (crashes && *crashes >= crashLimit_) return kUnhealthy;
  if (status == HealthStatus::kUnready) return kUnhealthy;
  if (status == HealthStatus::kRunning) return kHealthy;
  return std::nullopt;
}

Value ORBServiceManagerHealthInfo::summarize() {
  Dictionary summary;
  std::string text;
  for (const auto& [label, value] : serviceStates_) {
    const HealthStatus known = status(label).value();
    text += stringWithFormat("\n%@: %lu", label, static_cast<std::uint64_t>(known));
    if (const auto said = health(label, known)) summary.set(nameToReport(label), *said);
  }
  crashCounters_ = {};
  vantorlogger2_line(
      ASL_LEVEL_DEBUG,
      stringWithFormat(
          "Evaluating services (status: 0 - Unready, 1 - Running, 2 - Stopped, 3 - Updating):%@",
          text));
  return summary;
}

Value ORBServiceManagerHealthInfo::record() const {
  Dictionary services;
  for (const auto& [label, value] : serviceStates_) {
    Dictionary service{{kHealthName, nameToReport(label)},
                       {kHealthStatus, value},
                       {kHealthCrashes, crashCounters_[label].integer().value_or(0)}};
    if (const auto said = health(label, status(label).value())) service.set(kHealthReported, *said);
    services.set(label, std::move(service));
  }
  // Services that are not supervised any more.
  for (const auto& [label, crashes] : crashCounters_) {
    if (services.contains(label)) continue;
    services.set(label, Dictionary{{kHealthName, nameToReport(label)}, {kHealthCrashes, crashes}});
  }
  return Dictionary{{kHealthReadyToReport, isReadyToReport()},
                    {kHealthCrashLimit, crashLimit_},
                    {kHealthServices, std::move(services)}};
}

// Properties.

Dictionary ORBServiceManagerHealthInfo::serviceStates() {
  return answerOf(*taskQueue_, [this] { return serviceStates_; });
}

Dictionary ORBServiceManagerHealthInfo::crashCounters() {
  return answerOf(*taskQueue_, [this] { return crashCounters_; });
}

// This waits for the reports made before, which may set it, too.
void ORBServiceManagerHealthInfo::setReadyToReport(bool ready) {
  taskQueue_->sync([this, ready] { readyToReport_ = ready; });
}

std::int64_t ORBServiceManagerHealthInfo::crashLimit() {
  return answerOf(*taskQueue_, [this] { return crashLimit_; });
}

void ORBServiceManagerHealthInfo::setCrashLimit(std::int64_t limit) {
  taskQueue_->sync([this, limit] { crashLimit_ = limit; });
}

std::map<std::string, std::string> ORBServiceManagerHealthInfo::serviceNamesToReport() {
  return answerOf(*taskQueue_, [this] { return serviceNamesToReport_; });
}

void ORBServiceManagerHealthInfo::setServiceNamesToReport(
    std::map<std::string, std::string> names) {
  taskQueue_->sync([&] { serviceNamesToReport_ = std::move(names); });
}

MessageResult ORBServiceManagerHealthInfo::receiveMessage(std::string_view selector,
                                                          const Array& arguments) {
  if (selector == "isReadyToReport") return isReadyToReport();
  if (selector == "getHealthStateForServices") return getHealthStateForServices();
  return ServerMessage{kClassName, selector, arguments}.unrecognizedSelector();
}
