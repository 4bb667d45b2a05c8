#include "ServiceManager/ServiceManager/UserInterfaceClients.h"

#include <algorithm>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Messages/MessageReply.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NSDistantObject.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/Protocols.h"

using namespace platform;

namespace {

// More than any user has windows: a client that registers again and again must not fill our memory.
constexpr std::size_t kMaxUserClients = 1024;
// The registrations of one user, and of all users together, but for root and our own.
constexpr std::size_t kMaxClientsOfUser = 256;
constexpr std::size_t kMaxClientsOfUsers = 768;

Value statusNotice(std::string_view label, std::int64_t status, std::int64_t process) {
  Dictionary notice{{"Label", label}, {"status", status}};
  if (status == UserInterfaceClients::kJobRuns) notice.set("PID", process);
  return notice;
}

// Whether the client's connection has ended. Sends no message.
bool isDisconnected(const std::shared_ptr<const NSProxy>& client) {
  const auto distant = std::dynamic_pointer_cast<const NSDistantObject>(client);
  return distant && !distant->connectionForProxy()->isValid();
}

// The user of a client of another program.
std::optional<std::uint32_t> userOf(const std::shared_ptr<const NSProxy>& client) {
  const auto distant = std::dynamic_pointer_cast<const NSDistantObject>(client);
  const PeerConnection* const peer = distant ? distant->connectionForProxy()->peer() : nullptr;
  return peer ? std::optional(peer->peer().user) : std::nullopt;
}

}  // namespace

void UserInterfaceClients::registerClient(std::shared_ptr<const NSProxy> client) {
  if (!client) return;
  logOf(client, "Will register a user interface client remote proxy");
  const std::optional<std::uint32_t> user = userOf(client);
  // Clients that have ended since the last notice must not keep others out until the next notice.
  if (!hasRoomFor(user))
    std::erase_if(registrations_, [](const auto& entry) { return isDisconnected(entry->client); });
  if (!hasRoomFor(user)) {
    const NSException tooMany{kNSInvalidArgumentException,
                              stringWithFormat("there are %zu clients", registrations_.size()),
                              {}};
    logOf(client,
          stringWithFormat("Unable to register user interface client remote proxy: Exception: %@",
                           tooMany));
    return;
  }
  registrations_.push_back(
      std::make_shared<Registration>(Registration{client, user, endOfNotices(), false}));
  logOf(client, "Did register a user interface client remote proxy");
}

bool UserInterfaceClients::hasRoomFor(std::optional<std::uint32_t> user) const {
  if (registrations_.size() >= kMaxUserClients) return false;
  if (!isOrdinary(user)) return true;
  std::size_t ofUser = 0;
  std::size_t ofUsers = 0;
  for (const auto& entry : registrations_) {
    if (entry->user == user) ++ofUser;
    if (isOrdinary(entry->user)) ++ofUsers;
  }
  return ofUser < kMaxClientsOfUser && ofUsers < kMaxClientsOfUsers;
}

bool UserInterfaceClients::isOrdinary(std::optional<std::uint32_t> user) const {
  return user && *user != 0 && *user != ownUser_;
}

// A client may register, and be removed, again and again.
void UserInterfaceClients::logOf(const std::shared_ptr<const NSProxy>& client,
                                 std::string_view line) const {
  const std::optional<std::uint32_t> user = userOf(client);
  if (!user || mayLog_(*user)) vantorlogger2_line(ASL_LEVEL_DEBUG, line);
}

void UserInterfaceClients::notifyClientsOfService(Label label, std::int64_t withJobStatusChange,
                                                  std::int64_t andPID) {
  if (!label) return;
  if (notices_.size() == kMaxWaitingNotices) abandonSlowest();
  notices_.push_back(statusNotice(*label, withJobStatusChange, andPID));
  sendNotices();
}

void UserInterfaceClients::sendNotices() {
  // A client of this program answers at once, and its answer ends here, too.
  if (std::exchange(isSending_, true)) return;
  // A snapshot: clients may register or be removed while notices are sent.
  const auto registrations = registrations_;
  for (const auto& registration : registrations) {
    while (isBehind(*registration) &&
           registration->client->messagesUnderWay() < kMaxNoticesUnderWay)
      sendNext(*registration);
  }
  isSending_ = false;
  forgetSentNotices();
}

bool UserInterfaceClients::isBehind(const Registration& registration) const {
  return !registration.isRemoved && registration.next < endOfNotices();
}

void UserInterfaceClients::sendNext(Registration& registration) {
  const auto client = registration.client;
  const Array arguments{notices_[registration.next++ - firstNotice_]};
  if (!client->conformsToProtocol(kORBServiceManagerUserInterfaceDelegateProtocol))
    return abandon(client);
  const auto answer = [weak = std::weak_ptr(self_), client](const MessageResult& result) {
    if (const auto self = weak.lock()) (*self)->answered(client, result.has_value());
  };
  client->sendMessageAsync("jobStatusDidChangeWithInfo:", arguments, MessageReply(answer));
}

void UserInterfaceClients::answered(const std::shared_ptr<const NSProxy>& client,
                                    bool successfully) {
  if (!successfully) abandon(client);
  if (!notices_.empty()) sendNotices();
}

void UserInterfaceClients::abandon(const std::shared_ptr<const NSProxy>& client) {
  const auto isOfClient = [&](const auto& entry) { return entry->client == client; };
  if (std::ranges::none_of(registrations_, isOfClient)) return;
  logOf(client, "Attempting to remove an abandoned remote user client");
  for (const auto& entry : registrations_) {
    if (isOfClient(entry)) entry->isRemoved = true;
  }
  std::erase_if(registrations_, isOfClient);
  logOf(client, "Did remove an abandoned remote user client");
}

// From the end of its connection a client learns that it gets no more notices.
void UserInterfaceClients::abandonSlowest() {
  const auto registrations = registrations_;
  const std::uint64_t oldest = firstNotice_;  // It advances when the first of them is removed.
  for (const auto& registration : registrations) {
    if (registration->isRemoved || registration->next != oldest) continue;
    abandon(registration->client);
    if (const auto distant = std::dynamic_pointer_cast<const NSDistantObject>(registration->client))
      distant->connectionForProxy()->invalidate();
  }
  forgetSentNotices();
}

void UserInterfaceClients::forgetSentNotices() {
  std::uint64_t first = endOfNotices();
  for (const auto& registration : registrations_) first = std::min(first, registration->next);
  for (; firstNotice_ < first; ++firstNotice_) notices_.pop_front();
}

void UserInterfaceClients::removeAll() {
  for (const auto& registration : std::exchange(registrations_, {})) registration->isRemoved = true;
  forgetSentNotices();
}

std::vector<std::shared_ptr<const NSProxy>> UserInterfaceClients::userClients() const {
  std::vector<std::shared_ptr<const NSProxy>> clients;
  for (const auto& registration : registrations_) clients.push_back(registration->client);
  return clients;
}
