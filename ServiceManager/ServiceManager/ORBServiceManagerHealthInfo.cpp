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
  taskQueue_->async([this, label = std::string(label)] {
    if (serviceStates_.remove(label)) noteChange(label);
  });
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
    noteChange(label);
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
  if (this->status(label) == status) return;
  serviceStates_.set(label, std::to_underlying(status));
  noteChange(label);
}

void ORBServiceManagerHealthInfo::noteChange(std::string_view label) {
  changed_.emplace(label);
  services_ = {};
}

void ORBServiceManagerHealthInfo::noteChangeOfAll() {
  for (const auto& [label, value] : serviceStates_) noteChange(label);
  for (const auto& [label, crashes] : crashCounters_) noteChange(label);
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
  for (const auto& [label, crashes] : crashCounters_) noteChange(label);
  crashCounters_ = {};
  vantorlogger2_line(
      ASL_LEVEL_DEBUG,
      stringWithFormat(
          "Evaluating services (status: 0 - Unready, 1 - Running, 2 - Stopped, 3 - Updating):%@",
          text));
  return summary;
}

bool ORBServiceManagerHealthInfo::isOnRecord(const std::string& label) const {
  return serviceStates_.contains(label) || crashCounters_.contains(label);
}

Value ORBServiceManagerHealthInfo::recordOf(const std::string& label) const {
  Dictionary service{{kHealthName, nameToReport(label)}};
  const auto known = status(label);
  if (known) service.set(kHealthStatus, std::to_underlying(*known));
  service.set(kHealthCrashes, crashCounters_[label].integer().value_or(0));
  // A service without a status is not supervised any more.
  const auto said = known ? health(label, *known) : std::nullopt;
  if (said) service.set(kHealthReported, *said);
  return service;
}

// All services that are gone are left out at once: Dictionary::remove() takes time for each entry.
void ORBServiceManagerHealthInfo::updateRecords() {
  bool isAnyGone = false;
  for (const std::string& label : std::exchange(changed_, {})) {
    if (isOnRecord(label)) {
      records_.set(label, recordOf(label));
    } else {
      isAnyGone = true;
    }
  }
  if (!isAnyGone) return;
  for (const auto& [label, service] : std::exchange(records_, {})) {
    if (isOnRecord(label)) records_.set(label, service);
  }
}

Value ORBServiceManagerHealthInfo::record() {
  if (services_.isNil()) {
    updateRecords();
    services_ = records_;
  }
  return Dictionary{{kHealthReadyToReport, isReadyToReport()},
                    {kHealthCrashLimit, crashLimit_},
                    {kHealthServices, services_}};
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
  taskQueue_->sync([this, limit] {
    crashLimit_ = limit;
    noteChangeOfAll();
  });
}

std::map<std::string, std::string> ORBServiceManagerHealthInfo::serviceNamesToReport() {
  return answerOf(*taskQueue_, [this] { return serviceNamesToReport_; });
}

void ORBServiceManagerHealthInfo::setServiceNamesToReport(
    std::map<std::string, std::string> names) {
  taskQueue_->sync([&] {
    serviceNamesToReport_ = std::move(names);
    noteChangeOfAll();
  });
}

MessageResult ORBServiceManagerHealthInfo::receiveMessage(std::string_view selector,
                                                          const Array& arguments) {
  if (selector == "isReadyToReport") return isReadyToReport();
  if (selector == "getHealthStateForServices") return getHealthStateForServices();
  return ServerMessage{kClassName, selector, arguments}.unrecognizedSelector();
}
