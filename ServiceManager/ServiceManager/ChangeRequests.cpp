#include "ServiceManager/ServiceManager/ChangeRequests.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/Texts/StringFormat.h"

using namespace platform;

ChangeRequests::ChangeRequests(RunLoop& loop, std::uint32_t ownUser, MayLog mayLog)
    : loop_(loop), ownUser_(ownUser), mayLog_(std::move(mayLog)) {}

// False if there have been too many.
bool ChangeRequests::count(std::uint32_t user) {
  if (user == 0 || user == ownUser_) return true;
  const Instant now = loop_.now();
  if (!periodStart_ || now - *periodStart_ >= kPeriod) {
    periodStart_ = now;
    ofAll_ = 0;
    ofUsers_.clear();
  }
  if (ofAll_ >= kOfAll || ofUsers_[user] >= kOfUser) return false;
  ++ofAll_;
  ++ofUsers_[user];
  return true;
}

std::optional<NSException> ChangeRequests::refusalOf(std::uint32_t user) {
  if (count(user)) return std::nullopt;
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

void ChangeRequests::performOf(std::uint32_t user, RunLoop::Callback change) {
  if (count(user)) return change();
  if (delayed_) return;
  delayed_ = loop_.startTimer(*periodStart_ + kPeriod - loop_.now(), RunLoop::Repeat::kOnce,
                              [this, change = std::move(change)]() mutable {
                                const auto timer = std::move(delayed_);  // This is part of it.
                                change();
                              });
}

void ChangeRequests::perform(RunLoop::Callback change) {
  const PeerCredentials* const peer = NSConnection::currentPeer();
  if (!peer) return change();
  performOf(peer->user, std::move(change));
}
