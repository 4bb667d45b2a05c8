#include <algorithm>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NSDistantObject.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/Protocols.h"

using namespace platform;

namespace {

// No user has so many windows; a client that registers without end is not to fill our memory.
constexpr std::size_t kMaxUserClients = 1024;

Value statusNotice(std::string_view label, std::int64_t status, std::int64_t process) {
  Dictionary notice{{"Label", label}, {"status", status}};
  if (status == ORBServiceManager::kJobRuns) notice.set("PID", process);
  return notice;
}

// Whether it took the notice.
bool tell(const NSProxy& client, const Value& notice) {
  return client.conformsToProtocol(kORBServiceManagerUserInterfaceDelegateProtocol) &&
         client.sendMessage("jobStatusDidChangeWithInfo:", {notice}).has_value();
}

// Whether it can never be told anything again, without asking it.
bool hasGone(const std::shared_ptr<const NSProxy>& client) {
  const auto distant = std::dynamic_pointer_cast<const NSDistantObject>(client);
  return distant && !distant->connectionForProxy()->isValid();
}

}  // namespace

Value ORBServiceManager::services() const { return serviceInfo_["Services"]; }

Value ORBServiceManager::pidForService(Label label) {
  if (!label) return {};
  const Value process = copyJobDictionary(*label)["PID"];
  return process.integer().value_or(0) > 0 ? process : Value();
}

Value ORBServiceManager::lastExitStatusForService(Label label) {
  if (!label) return {};
  const Value status = copyJobDictionary(*label)["LastExitStatus"];
  return status.isNumber() ? status : Value();
}

void ORBServiceManager::stopServices(const Array& labels) {
  for (const Value& element : labels) {
    const std::string* label = element.string();
    if (!label) continue;
    trackServiceForUserClientShutdownRequest(*label, true);
    enforceShutdownForService(*label);
  }
}

void ORBServiceManager::startServices(const Array& labels) {
  for (const Value& element : labels) {
    const std::string* label = element.string();
    if (!label) continue;
    trackServiceForUserClientShutdownRequest(*label, false);
    enforceRunningForService(*label, nullptr);
  }
}

void ORBServiceManager::registerClient(std::shared_ptr<const NSProxy> client) {
  if (!client) return;
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Will register a user interface client remote proxy");
  // Those that ended since the last notice must not keep others out until the next, which may be
  // long in coming.
  if (userClients_.size() == kMaxUserClients) std::erase_if(userClients_, hasGone);
  if (userClients_.size() == kMaxUserClients) {
    const NSException tooMany{kNSInvalidArgumentException,
                              stringWithFormat("there are %zu clients", userClients_.size()),
                              {}};
    vantorlogger2_line(
        ASL_LEVEL_DEBUG,
        stringWithFormat("Unable to register user interface client remote proxy: Exception: %@",
                         tooMany));
    return;
  }
  userClients_.push_back(std::move(client));
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Did register a user interface client remote proxy");
}

void ORBServiceManager::notifyClientsOfService(Label label, std::int64_t withJobStatusChange,
                                               std::int64_t andPID) {
  if (!label) return;
  const Value notice = statusNotice(*label, withJobStatusChange, andPID);
  // A snapshot, from which nobody is missed when another is removed.
  const auto clients = userClients_;
  for (const auto& client : clients) {
    const bool isRegistered = std::ranges::find(userClients_, client) != userClients_.end();
    if (!isRegistered || tell(*client, notice)) continue;
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Attempting to remove an abandoned remote user client");
    std::erase(userClients_, client);
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Did remove an abandoned remote user client");
  }
}
