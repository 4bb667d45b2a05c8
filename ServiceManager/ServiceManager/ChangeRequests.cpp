#include "ServiceManager/ServiceManager/ChangeRequests.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/Texts/StringFormat.h"

using namespace platform;

ChangeRequests::ChangeRequests(const RunLoop& loop, std::uint32_t ownUser, MayLog mayLog)
    : loop_(loop), ownUser_(ownUser), mayLog_(std::move(mayLog)) {}

std::optional<NSException> ChangeRequests::refusalOf(std::uint32_t user) {
  if (user == 0 || user == ownUser_) return std::nullopt;
  const Instant now = loop_.now();
  if (!periodStart_ || now - *periodStart_ >= kPeriod) {
    periodStart_ = now;
    ofAll_ = 0;
    ofUsers_.clear();
  }
  if (ofAll_ < kOfAll && ofUsers_[user] < kOfUser) {
    ++ofAll_;
    ++ofUsers_[user];
    return std::nullopt;
  }
  if (mayLog_(user)) {
    vantorlogger2_line(
        ASL_LEVEL_WARNING,
        stringWithFormat("Refused a request of user %u: too many changes of services.", user));
  }
  return NSException{
      kNSInvalidArgumentException, "Too many changes of services. Ask again in a minute.", {}};
}

std::optional<NSException> ChangeRequests::refusal() {
  const PeerCredentials* const peer = NSConnection::currentPeer();
  return peer ? refusalOf(peer->user) : std::nullopt;
}
