#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "ServiceManager/ServiceManager/ORBServiceManager.h"

// The operator's server, which answers on a thread of its own.

using namespace platform;

namespace {

// If more jobs than this are not watched, pages of states cost less than a copy of each.
constexpr std::size_t kMostJobsAskedAbout = 16;

}  // namespace

void ORBServiceManager::goIdle(std::string why) {
  idleReason_ = std::move(why);
  if (platform_.announceStatus) platform_.announceStatus("idle: " + *idleReason_);
  vendOperatorServer();
}

// A shortage during the check of the own bundle may end.
void ORBServiceManager::endIdleness() {
  if (!std::exchange(idleReason_, std::nullopt)) return;
  if (platform_.announceStatus) platform_.announceStatus("");
}

void ORBServiceManager::vendOperatorServer() {
  // An idle daemon may have read the catalogue of all products.
  operatorsCatalogue_ =
      std::make_shared<ServiceCatalogue>(idleReason_ ? ServiceCatalogue() : catalogue_);
  operatorPublisher_.publish();
  operatorServer_.emplace(
      VendedOperatorServer::Environment{.worker = platform_.operatorWorker,
                                        .pictures = operatorPublisher_.pictures(),
                                        .main = operatorsMainThread(),
                                        .mainThreadWork = mainThreadWork_,
                                        .events = events_,
                                        .protocols = platform_.protocols,
                                        .system = platform_.system});
}

void ORBServiceManager::tellOperator(OperatorEvent event) {
  event.time = platform_.runLoop.wallTime();
  events_->add(std::move(event));
}

void ORBServiceManager::notifyClientsOfService(Label label, std::int64_t withJobStatusChange,
                                               std::int64_t andPID) {
  userClients_.notifyClientsOfService(label, withJobStatusChange, andPID);
  const bool runs = withJobStatusChange == UserInterfaceClients::kJobRuns;
  if (label)
    tellOperator({.kind = OperatorEvent::Kind::kService,
                  .subject = std::string(*label),
                  .number = runs ? andPID : 0});
}

// An evaluation comes to the same result again and again.
void ORBServiceManager::tellDecision(const std::string& label, bool isWanted) {
  const auto [known, isNew] = decisions_.try_emplace(label, isWanted);
  if (!isNew && std::exchange(known->second, isWanted) == isWanted) return;
  tellOperator(
      {.kind = OperatorEvent::Kind::kEvaluation, .subject = label, .number = isWanted ? 1 : 0});
}

OperatorPicture ORBServiceManager::operatorPicture() const {
  return {.taken = platform_.runLoop.now(),
          .catalogue = operatorsCatalogue_,
          .idleReason = idleReason_,
          .product = product_,
          .operatingMode = operatingMode_,
          .isInstallerAtWork = isInstallerAtWork_,
          .isTakingOver = takeOver_.goesOn(),
          .records = records_,
          .jobs = jobs_.known(),
          .programs = enforcement_.programFindings(),
          .timers = timers_.dueTimes(),
          .configuredExtensions = extensions_.configured(),
          .work = enforcement_.work(),
          .unchecked = rechecks_.waiting(),
          .extensionFailures = extensions_.failures(),
          .askedSources = settings_.askedSources(),
          .lastValues = settings_.lastValues()};
}

// Only the end of a watched process is noticed, and the job host reports only starts. Further
// pictures have the answers.
void ORBServiceManager::refreshUnwatchedJobs() {
  jobs_.completeRefresh();
  std::vector<std::string> labels;
  for (const auto& [label, job] : jobs_.known()->jobs) {
    if (!job.status.process || isServiceBeingTrackedForRespawn(label)) continue;
    if (hasService(label)) labels.push_back(label);
  }
  if (labels.size() > kMostJobsAskedAbout) return jobs_.refreshAll();
  for (const std::string& label : labels) jobs_.refresh(label);
}

ORBServiceManagerOperatorServer::MainThread ORBServiceManager::operatorsMainThread() {
  const auto onMain = [&loop = platform_.runLoop,
                       isAlive = std::weak_ptr(isAlive_)](RunLoop::Callback work) {
    loop.post([isAlive, work = std::move(work)]() mutable {
      if (!isAlive.expired()) work();
    });
  };
  return {.publish =
              [this, onMain](RunLoop::Callback published) {
                onMain([this, published = std::move(published)]() mutable {
                  operatorPublisher_.publish(std::move(published));
                  refreshUnwatchedJobs();
                });
              },
          .whenSettled =
              [this, onMain](Array labels, RunLoop::Callback settled) {
                onMain([this, labels = std::move(labels), settled = std::move(settled)]() mutable {
                  whenSettled(labels, std::move(settled));
                });
              }};
}
