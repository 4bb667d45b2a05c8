#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ServiceManager/ServiceManager/ORBServiceManager.h"

// The requests of the installer and the user interface, and the checks of their senders.

using namespace platform;

// Any client may name any job of the machine: the bus, this daemon, an extension. Only the
// catalogue's services may be asked about, started and stopped, and each once by a request.
bool ORBServiceManager::hasService(Label label) const {
  return label && !catalogue_.service(*label).isNil();
}

std::vector<std::string> ORBServiceManager::knownLabels(const Array& labels) const {
  std::vector<std::string> known;
  std::set<std::string_view> seen;
  for (const Value& element : labels) {
    const std::string* label = element.string();
    if (label && hasService(*label) && seen.insert(*label).second) known.push_back(*label);
  }
  return known;
}

void ORBServiceManager::enforceRunningForService(Label label, CompletionBlock withCompletionBlock) {
  if (!label) return;
  enforcement_.enforceRunningForService(std::string(*label), std::move(withCompletionBlock));
  operatorPublisher_.changed();
}

void ORBServiceManager::enforceShutdownForService(Label label, StopAnswer answer) {
  if (label) {
    enforcement_.enforceShutdownForService(std::string(*label), std::move(answer));
    operatorPublisher_.changed();
  } else if (answer) {
    answer(true);
  }
}

void ORBServiceManager::shutdownServices(const Array& labels, StopAnswer answer) {
  setMode(ORBOperatingModeInstaller);
  if (!std::exchange(isInstallerAtWork_, true))
    tellOperator({.kind = OperatorEvent::Kind::kInstaller, .number = 1});
  // The last of the services that hold this gives the answer.
  struct Request {
    explicit Request(StopAnswer whenOver) : answer(std::move(whenOver)) {}
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    ~Request() {
      if (answer) answer(haveAllStopped);
    }
    StopAnswer answer;
    bool haveAllStopped = true;
  };
  const auto request = std::make_shared<Request>(std::move(answer));
  for (const std::string& label : knownLabels(labels)) {
    enforceShutdownForService(label, [request](bool hasStopped) {
      if (!hasStopped) request->haveAllStopped = false;
    });
    if (healthInfo_) healthInfo_->reportIntallerEventStartedForService(label);
  }
}

void ORBServiceManager::pidForService(Label label, ValueAnswer answer) {
  if (!hasService(label)) return answer({});
  jobs_.copyJob(*label, [answer = std::move(answer)](const Value& copy) mutable {
    const std::optional<ProcessId> process = jobStatusIn(copy).process;
    answer(process ? Value(*process) : Value());
  });
}

void ORBServiceManager::lastExitStatusForService(Label label, ValueAnswer answer) {
  if (!hasService(label)) return answer({});
  jobs_.copyJob(*label, [answer = std::move(answer)](const Value& copy) mutable {
    Value status = jobStatusIn(copy).lastExitStatus;
    answer(status.isNumber() ? std::move(status) : Value());
  });
}

void ORBServiceManager::stopServices(const Array& labels) {
  for (const std::string& label : knownLabels(labels)) {
    trackServiceForUserClientShutdownRequest(label, true);
    enforceShutdownForService(label);
  }
}

void ORBServiceManager::startServices(const Array& labels) {
  for (const std::string& label : knownLabels(labels)) {
    trackServiceForUserClientShutdownRequest(label, false);
    enforceRunningForService(label, nullptr);
  }
}

void ORBServiceManager::whenSettled(const Array& labels, CompletionBlock settled) {
  enforcement_.whenSettled(knownLabels(labels), std::move(settled));
}

bool ORBServiceManager::connection(NSConnection& parent, NSConnection& shouldMakeNewConnection) {
  return connectionAuthenticator()->connection(parent, shouldMakeNewConnection);
}

Data ORBServiceManager::authenticationDataForComponents(const Array& components) {
  return connectionAuthenticator()->authenticationDataForComponents(components);
}

bool ORBServiceManager::authenticateComponents(const Array& components, const Data& withData) {
  return connectionAuthenticator()->authenticateComponents(components, withData);
}
