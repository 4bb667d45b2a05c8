#include "Platform/Logging/UserLines.h"

#include <limits>
#include <utility>

#include "Platform/Texts/StringFormat.h"

namespace platform {

namespace {

// The key of all users who are not counted by themselves. No process has this user.
constexpr std::uint32_t kOtherUsers = std::numeric_limits<std::uint32_t>::max();

std::string leftOutLine(std::uint32_t user, std::size_t lines) {
  const auto count = static_cast<unsigned long>(lines);
  if (user == kOtherUsers) {
    return stringWithFormat("%lu lines about requests of other users were left out", count);
  }
  return stringWithFormat("%lu lines about requests of user %u were left out", count, user);
}

}  // namespace

UserLines::UserLines(std::uint32_t ownUser, RunLoop& loop, SystemLog& log, std::string ident)
    : ownUser_(ownUser), loop_(loop), log_(log), client_{std::move(ident), "com.vantor.platform"} {}

bool UserLines::mayWrite(std::uint32_t user) {
  if (user == 0 || user == ownUser_) return true;
  const std::lock_guard lock(mutex_);
  const Instant now = loop_.now();
  if (!periodStart_ || (!willTell_ && now - *periodStart_ >= kPeriod)) {
    periodStart_ = now;
    written_ = 0;
    counts_.clear();
  }
  const bool isCounted = counts_.contains(user) || counts_.size() < kUsers;
  Count& count = counts_[isCounted ? user : kOtherUsers];
  if (count.written < kLinesPerUser && written_ < kLinesOfAll) {
    ++count.written;
    ++written_;
    return true;
  }
  ++count.leftOut;
  if (std::exchange(willTell_, true)) return false;
  loop_.post([weak = weak_from_this(), end = *periodStart_ + kPeriod] {
    const auto self = weak.lock();
    if (!self) return;
    self->timer_ = self->loop_.startTimer(end - self->loop_.now(), RunLoop::Repeat::kOnce,
                                          [here = self.get()] { here->tellCounts(); });
  });
  return false;
}

void UserLines::tellCounts() {
  std::map<std::uint32_t, Count> counts;
  {
    const std::lock_guard lock(mutex_);
    counts.swap(counts_);
    periodStart_.reset();
    willTell_ = false;
  }
  for (const auto& [user, count] : counts) {
    if (count.leftOut == 0) continue;
    log_.asl_log(&client_, ASL_LEVEL_WARNING, leftOutLine(user, count.leftOut));
  }
}

}  // namespace platform
