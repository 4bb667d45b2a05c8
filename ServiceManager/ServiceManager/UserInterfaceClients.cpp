#include "ServiceManager/ServiceManager/UserInterfaceClients.h"

#include <algorithm>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NSDistantObject.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/Protocols.h"

using namespace platform;

namespace {

// More than any user has windows: a client that registers again and again must not fill our memory.
constexpr std::size_t kMaxUserClients = 1024;

Value statusNotice(std::string_view label, std::int64_t status, std::int64_t process) {
  Dictionary notice{{"Label", label}, {"status", status}};
  if (status == UserInterfaceClients::kJobRuns) notice.set("PID", process);
  return notice;
}

// Whether the client took the notice.
bool deliver(const NSProxy& client, const Value& notice) {
  return client.conformsToProtocol(kORBServiceManagerUserInterfaceDelegateProtocol) &&
         client.sendMessage("jobStatusDidChangeWithInfo:", {notice}).has_value();
}

// Whether the client's connection has ended. Sends no message.
bool isDisconnected(const std::shared_ptr<const NSProxy>& client) {
  const auto distant = std::dynamic_pointer_cast<const NSDistantObject>(client);
  return distant && !distant->connectionForProxy()->isValid();
}

}  // namespace

void UserInterfaceClients::registerClient(std::shared_ptr<const NSProxy> client) {
  if (!client) return;
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Will register a user interface client remote proxy");
  // Clients that have ended since the last notice must not keep others out until the next notice.
  if (userClients_.size() == kMaxUserClients) std::erase_if(userClients_, isDisconnected);
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

void UserInterfaceClients::notifyClientsOfService(Label label, std::int64_t withJobStatusChange,
                                                  std::int64_t andPID) {
  if (!label) return;
  const Value notice = statusNotice(*label, withJobStatusChange, andPID);
  // A snapshot: clients may register or be removed while one is notified.
  const auto clients = userClients_;
  for (const auto& client : clients) {
    const bool isRegistered = std::ranges::find(userClients_, client) != userClients_.end();
    if (!isRegistered || deliver(*client, notice)) continue;
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Attempting to remove an abandoned remote user client");
    std::erase(userClients_, client);
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Did remove an abandoned remote user client");
  }
}
