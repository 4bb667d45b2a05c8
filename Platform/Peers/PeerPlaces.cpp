#include "Platform/Peers/PeerPlaces.h"

#include <algorithm>
#include <map>
#include <utility>

namespace platform {

class PeerPlaces::Taken final : public Place {
 public:
  Taken(std::shared_ptr<PeerPlaces> places, std::shared_ptr<Entry> entry)
      : places_(std::move(places)), entry_(std::move(entry)) {}
  Taken(const Taken&) = delete;
  Taken& operator=(const Taken&) = delete;
  ~Taken() override { places_->entries_.remove(entry_); }

 private:
  std::shared_ptr<PeerPlaces> places_;
  std::shared_ptr<Entry> entry_;
};

std::unique_ptr<PeerPlaces::Place> PeerPlaces::take(std::uint32_t user, PushedOut pushedOut) {
  if (!makeRoom(user)) return nullptr;
  auto entry = std::make_shared<Entry>(user, std::move(pushedOut));
  entries_.push_back(entry);
  return std::make_unique<Taken>(shared_from_this(), std::move(entry));
}

bool PeerPlaces::makeRoom(std::uint32_t newcomer) {
  std::map<std::uint32_t, std::size_t> held;
  for (const auto& entry : entries_) ++held[entry->user];
  std::size_t ordinary = 0;
  for (const auto& [user, count] : held) ordinary += isPrivileged(user) ? 0 : count;

  const bool onlyOrdinary = !isPrivileged(newcomer);
  const bool full = entries_.size() >= places_ || (onlyOrdinary && ordinary >= places_ - kept_);
  if (!full) return true;

  ++held[newcomer];
  std::size_t most = 0;
  for (const auto& [user, count] : held) {
    if (!onlyOrdinary || !isPrivileged(user)) most = std::max(most, count);
  }
  // If several users have as many, the newcomer loses a place itself.
  auto oldest = std::ranges::find_if(entries_, [&](const auto& entry) {
    return entry->user == newcomer && held[newcomer] == most;
  });
  if (oldest == entries_.end()) {
    oldest = std::ranges::find_if(entries_, [&](const auto& entry) {
      return held[entry->user] == most && (!onlyOrdinary || !isPrivileged(entry->user));
    });
  }
  if (oldest == entries_.end()) return false;
  const auto victim = *oldest;
  entries_.erase(oldest);
  victim->pushedOut();
  return true;
}

}  // namespace platform
