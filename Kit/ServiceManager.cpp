#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include <vantor/ServiceManager.h>

#include "Kit/ProgramParts.h"
#include "Kit/Values.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Values/Time.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace vantor {
namespace {

constexpr char kInstallerServer[] = "com.vantor.servicemanager.installer.server";
constexpr char kUserInterfaceServer[] = "com.vantor.servicemanager.userinterface.server";
constexpr char kOperatorServer[] = "com.vantor.servicemanager.operator.server";
constexpr platform::Duration kRemovalTime = std::chrono::minutes(5);

platform::Value labelsOf(const std::vector<std::string>& labels) {
  return platform::Array(labels.begin(), labels.end());
}

// A page of the services. An idle service manager has none, and that is an error.
Result<platform::Value> overviewFrom(VantorDistantObject& operatorServer, std::int64_t first) {
  auto page = ask(operatorServer, "overviewFrom:", {first});
  if (!page) return page;
  if (const std::string* reason = (*page)[kFactIdleReason].string())
    return Error{ErrorCode::kFailed, "the service manager is idle: " + *reason};
  return page;
}

}  // namespace

struct ServiceManagerParts {
  explicit ServiceManagerParts(ProgramParts& program)
      : operatorServer(program.environment(), kOperatorServer, kORBServiceManagerOperatorProtocol,
                       std::nullopt),
        userInterface(program.environment(), kUserInterfaceServer,
                      kORBServiceManagerUserInterfaceProtocol, std::nullopt),
        installer(program.environment(), kInstallerServer, kORBServiceManagerInstallerProtocol,
                  std::nullopt) {}

  // A one-way message; returns when the service manager has read it.
  Result<void> request(std::string_view selector, const std::vector<std::string>& labels) {
    const auto sent = ask(userInterface, selector, {labelsOf(labels)});
    if (!sent) return sent.error();
    const auto fence = ask(userInterface, "pidForService:", {""});
    if (!fence) return fence.error();
    return {};
  }

  VantorDistantObject operatorServer;
  VantorDistantObject userInterface;
  VantorDistantObject installer;
};

ServiceManager::ServiceManager(Program& program)
    : parts_(std::make_unique<ServiceManagerParts>(program.parts())) {}
ServiceManager::~ServiceManager() = default;

Result<std::vector<ServiceState>> ServiceManager::states() {
  std::vector<ServiceState> states;
  for (std::int64_t first = 0, count = 1; first < count; first += kServicesInAPage) {
    const auto page = overviewFrom(parts_->operatorServer, first);
    if (!page) return page.error();
    count = (*page)[kFactServiceCount].integer().value_or(0);
    const platform::Dictionary* const services = (*page)[kFactServices].dictionary();
    if (!services) return Error{ErrorCode::kFailed, "the service manager has no services"};
    platform::Array labels;
    for (const auto& [label, facts] : *services) labels.emplace_back(label);
    const auto jobs = ask(parts_->operatorServer, "jobsOfServices:", {platform::Value(labels)});
    if (!jobs) return jobs.error();
    for (const platform::Value& label : labels) {
      const platform::Value& facts = (*jobs)[*label.string()];
      states.push_back({*label.string(), facts[kFactJob][platform::kJobProcessKey].integer(),
                        facts[kFactJobIsUnknown] != platform::Value(true)});
    }
  }
  return states;
}

Result<void> ServiceManager::start(const std::vector<std::string>& labels) {
  return parts_->request("startServices:", labels);
}

Result<void> ServiceManager::stop(const std::vector<std::string>& labels) {
  return parts_->request("stopServices:", labels);
}

Result<bool> ServiceManager::beginInstallation(const std::vector<std::string>& labels) {
  VantorDistantObject& installer = parts_->installer;
  const auto connection = installer.isProxyValid() ? installer.connection() : nullptr;
  const platform::Duration usual =
      connection ? connection->replyTimeout() : platform::Duration::zero();
  if (connection) connection->setReplyTimeout(kRemovalTime);
  const auto done = ask(installer, "shutdownServices:", {labelsOf(labels)});
  if (connection) connection->setReplyTimeout(usual);
  if (!done) return done.error();
  return *done == platform::Value(true);
}

Result<void> ServiceManager::endInstallation() {
  const auto taken = ask(parts_->installer, "evaluateServices");
  if (!taken) return taken.error();
  if (*taken == platform::Value(true)) return {};
  return Error{ErrorCode::kFailed, "the service manager did not take the request"};
}

Result<Value> ServiceManager::health() {
  if (const auto page = overviewFrom(parts_->operatorServer, 0); !page) return page.error();
  const auto record = ask(parts_->operatorServer, "healthRecord");
  if (!record) return record.error();
  return ValueAccess::from(*record);
}

}  // namespace vantor
