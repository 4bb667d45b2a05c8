#include "Platform/Peers/PeerAccounts.h"

#include <algorithm>
#include <limits>

namespace platform {

namespace {

// The memory of a connection and its unread messages, for an estimate.
constexpr std::size_t kConnectionBytes = 64 * 1024;
// Less than this is not worth a relief.
constexpr std::size_t kRelief = 1024 * 1024;

// The descriptors that one user, and all users together, get at most: a quarter and a half.
constexpr std::uint64_t kUserShare = 4;
constexpr std::uint64_t kAllShare = 2;

template <typename Function>
void forEachKind(Function function) {
  for (std::size_t PeerCost::* kind :
       {&PeerCost::connections, &PeerCost::descriptors, &PeerCost::bytes, &PeerCost::calls}) {
    function(kind);
  }
}

// `account` with `to` in the place of `from`.
PeerCost changed(PeerCost account, const PeerCost& from, const PeerCost& to) {
  forEachKind([&](auto kind) { account.*kind = account.*kind - from.*kind + to.*kind; });
  return account;
}

// Whether no kind has grown beyond its limit.
bool isWithin(const PeerCost& before, const PeerCost& after, const PeerCost& limit) {
  bool isWithin = true;
  forEachKind([&](auto kind) {
    if (after.*kind > before.*kind && after.*kind > limit.*kind) isWithin = false;
  });
  return isWithin;
}

}  // namespace

PeerAccounts::Limits PeerAccounts::limitsFor(std::uint64_t descriptorLimit) {
  const auto share = [descriptorLimit](std::uint64_t part) {
    return static_cast<std::size_t>(
        std::min<std::uint64_t>(descriptorLimit / part, std::numeric_limits<std::size_t>::max()));
  };
  return {.user = {.connections = kMaxPeerConnectionsOfUser,
                   .descriptors = share(kUserShare),
                   .bytes = kMaxPeerBytesOfUser,
                   .calls = kMaxPeerCallsOfUser},
          .all = {.connections = kMaxPeerConnectionsOfAllUsers,
                  .descriptors = share(kAllShare),
                  .bytes = kMaxPeerBytesOfAllUsers,
                  .calls = kMaxPeerCallsOfAllUsers}};
}

bool PeerAccounts::Held::change(const PeerCost& cost) {
  if (cost == cost_) return true;
  if (!accounts_->change(user_, cost_, cost)) return false;
  cost_ = cost;
  return true;
}

std::size_t PeerAccounts::Held::bytesLeft() const {
  if (accounts_->isPrivileged(user_)) return std::numeric_limits<std::size_t>::max();
  const std::lock_guard lock(accounts_->mutex_);
  const auto left = [](std::size_t limit, std::size_t taken) {
    return limit > taken ? limit - taken : 0;
  };
  const auto found = accounts_->users_.find(user_);
  const std::size_t taken = found == accounts_->users_.end() ? 0 : found->second.bytes;
  return std::min(left(accounts_->limits_.user.bytes, taken),
                  left(accounts_->limits_.all.bytes, accounts_->all_.bytes));
}

std::unique_ptr<PeerAccounts::Held> PeerAccounts::take(std::uint32_t user, const PeerCost& cost) {
  auto held = std::make_unique<Held>(shared_from_this(), user);
  return held->change(cost) ? std::move(held) : nullptr;
}

PeerCost PeerAccounts::taken() const {
  const std::lock_guard lock(mutex_);
  return all_;
}

bool PeerAccounts::change(std::uint32_t user, const PeerCost& from, const PeerCost& to) {
  if (isPrivileged(user)) return true;
  bool isRelieved = false;
  {
    const std::lock_guard lock(mutex_);
    const auto found = users_.find(user);
    const PeerCost before = found == users_.end() ? PeerCost() : found->second;
    const PeerCost after = changed(before, from, to);
    const PeerCost all = changed(all_, from, to);
    if (!isWithin(before, after, limits_.user) || !isWithin(all_, all, limits_.all)) return false;
    if (after == PeerCost()) {
      users_.erase(user);
    } else {
      users_[user] = after;
    }
    all_ = all;
    isRelieved = isRelief();
  }
  if (isRelieved && relieved_) relieved_();
  return true;
}

bool PeerAccounts::isRelief() {
  const std::size_t now = all_.connections * kConnectionBytes + all_.bytes;
  most_ = std::max(most_, now);
  if (most_ < kRelief || now > most_ / 2) return false;
  most_ = now;
  return true;
}

}  // namespace platform
