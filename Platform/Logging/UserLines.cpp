#include "Platform/Logging/UserLines.h"

#include <limits>
#include <utility>

#include "Platform/Texts/StringFormat.h"

namespace platform {

namespace {

// The keys of all users who are not counted by themselves, and of this program's own failures. No
// process has these users.
constexpr std::uint32_t kOtherUsers = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kThisProgram = kOtherUsers - 1;

std::string leftOutLine(std::uint32_t key, std::size_t lines) {
  const auto count = static_cast<unsigned long>(lines);
  if (key == kOtherUsers) {
    return stringWithFormat("%lu lines about requests of other users were left out", count);
  }
  if (key == kThisProgram) {
    return stringWithFormat("%lu lines about failures of this program were left out", count);
  }
  return stringWithFormat("%lu lines about requests of user %u were left out", count, key);
}

}  // namespace

UserLines::UserLines(std::uint32_t ownUser, RunLoop& loop, SystemLog& log, std::string ident)
    : ownUser_(ownUser), loop_(loop), log_(log), client_{std::move(ident), "com.vantor.platform"} {}

UserLines::~UserLines() { tellCounts(); }

bool UserLines::mayWrite(std::uint32_t user) {
  return user == 0 || user == ownUser_ || mayWriteFailure(user);
}

bool UserLines::mayWriteFailure(std::optional<std::uint32_t> user) {
  const std::lock_guard lock(mutex_);
  const std::uint32_t key = user.value_or(kThisProgram);
  Count& count = countOf(key);
  const bool isOneOfAll = isOrdinary(key);
  if (count.written < kLinesPerUser && (!isOneOfAll || written_ < kLinesOfAll)) {
    ++count.written;
    if (isOneOfAll) ++written_;
    return true;
  }
  ++count.leftOut;
  tellLater();
  return false;
}

void UserLines::leaveOut(std::size_t lines) {
  if (lines == 0) return;
  const std::lock_guard lock(mutex_);
  countOf(kThisProgram).leftOut += lines;
  tellLater();
}

bool UserLines::isOrdinary(std::uint32_t key) const {
  return key != 0 && key != ownUser_ && key != kThisProgram;
}

UserLines::Count& UserLines::countOf(std::uint32_t key) {
  const Instant now = loop_.now();
  if (!periodStart_ || (!willTell_ && now - *periodStart_ >= kPeriod)) {
    periodStart_ = now;
    written_ = 0;
    counts_.clear();
  }
  const bool isCounted = !isOrdinary(key) || counts_.contains(key) || counts_.size() < kUsers;
  return counts_[isCounted ? key : kOtherUsers];
}

void UserLines::tellLater() {
  if (std::exchange(willTell_, true)) return;
  loop_.post([weak = weak_from_this(), end = *periodStart_ + kPeriod] {
    const auto self = weak.lock();
    if (!self) return;
    self->timer_ = self->loop_.startTimer(end - self->loop_.now(), RunLoop::Repeat::kOnce,
                                          [here = self.get()] { here->tellCounts(); });
  });
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
