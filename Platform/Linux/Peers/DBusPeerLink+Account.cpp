// The part of a connection in the account of its user. Only the accepting side has one.

#include <algorithm>
#include <utility>

#include <unistd.h>

#include "Platform/Linux/Peers/DBusPeerLink.h"
#include "Platform/Linux/Sockets/SocketPeer.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {

namespace {

// The most bytes that libdbus reads before it returns: two reads of 2,048.
constexpr std::size_t kBytesPerReading = 4096;

Error tooMuch() { return {ErrorCode::kExhausted, 0, "its user takes too much of this process"}; }

}  // namespace

void DBusPeerLink::admit() {
  lease_.place.reset();
  lease_.admissionTimer.reset();
  admitted_ = true;
  if (ended_) return;
  if (!account()) return refuse(tooMuch());
  const bool takes = mayPassDescriptors(peer_.user, ::geteuid());
  permitDescriptors(socket_, takes);
  allowMessages(kMaxPeerMessageBytes, takes ? kMaxPeerDescriptors : 0);
}

// Only the accepting side has an account. libdbus does not tell how much of a message it has read,
// but it has not read more than this, and it has read something if no message was completed.
void DBusPeerLink::handled(unsigned flags) {
  if (ended_ || !lease_.account) return;
  // The reading that completes the authentication need not contain anything else.
  const bool readsMessages = std::exchange(readsMessages_, authenticated_);
  const bool isWhole =
      dbus_connection_get_dispatch_status(connection_.get()) == DBUS_DISPATCH_DATA_REMAINS;
  if (isWhole) {
    unfinishedBytes_ = 0;
    messageTimer_.reset();
    // One reading in each turn of this connection: on a busy loop its dispatch comes late, and the
    // socket would be read again and again until then.
    sources_->pause();
  } else if (readsMessages && (flags & DBUS_WATCH_READABLE) != 0) {
    unfinishedBytes_ = std::min(unfinishedBytes_ + kBytesPerReading, kMaxPeerMessageBytes);
    if (!messageTimer_) {
      messageTimer_ =
          loop_.startTimer(lease_.messageTime, RunLoop::Repeat::kOnce, [this] { messageIsLate(); });
    }
  }
  if (!account()) refuse(tooMuch());
}

// This process may have been busy: what has arrived is read first.
void DBusPeerLink::messageIsLate() {
  const auto self = shared_from_this();
  while (unfinishedBytes_ > 0 && isConnected() &&
         sources_->handleWithin(Duration::zero()) == DBusSources::Handled::kSome) {
  }
  if (unfinishedBytes_ == 0 || ended_) return;
  refuse({ErrorCode::kDenied, 0, "a message did not arrive whole in time"});
}

// Takes what the connection costs now, and so much more. False if the user may not have that.
bool DBusPeerLink::account(std::size_t moreBytes, std::size_t moreCalls) {
  if (!lease_.account) return true;
  const auto unsent =
      static_cast<std::size_t>(dbus_connection_get_outgoing_size(connection_.get()));
  return lease_.account->change(
      {.connections = 1,
       .descriptors = 1 + (admitted_ ? kMaxPeerDescriptors : 0),
       .bytes = unfinishedBytes_ + unsent + unreadFiles_.bytes(unsent == 0) + moreBytes,
       .calls = answersOwed_ + moreCalls});
}

// A connection that has ended counts until all its requests have been answered.
void DBusPeerLink::endAccount() {
  messageTimer_.reset();
  if (answersOwed_ == 0) {
    lease_.account.reset();
  } else if (lease_.account) {
    lease_.account->change({.connections = 1, .calls = answersOwed_});
  }
}

// Leaves messages in the socket while others wait to be delivered.
void DBusPeerLink::limitReading() {
  if (!sources_) return;
  if (inbox_.size() < kPeerMessagesReadAhead) {
    sources_->resume();
  } else {
    sources_->pause();
  }
}

// The largest memory file that may be read for the peer.
std::size_t DBusPeerLink::fileLimit() const {
  if (!lease_.account) return kMaxPeerMemoryFileBytes;
  return std::min(kMaxPeerMemoryFileBytes, lease_.account->bytesLeft());
}

}  // namespace platform
