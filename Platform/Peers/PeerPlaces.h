#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>

#include "Platform/Peers/PeerLimits.h"

namespace platform {

// The places of a listener for connections that it has not admitted yet. Nobody is turned away when
// all are taken, or whoever takes them all would keep everybody else out: the user who has the most
// loses its oldest. Some places only root and our own user may take.
class PeerPlaces : public std::enable_shared_from_this<PeerPlaces> {
 public:
  // Gives the place back when it is destroyed.
  class Place {
   public:
    virtual ~Place() = default;
  };
  using PushedOut = std::function<void()>;

  explicit PeerPlaces(std::uint32_t ownUser, std::size_t places = kPeerPlaces,
                      std::size_t kept = kKeptPeerPlaces)
      : ownUser_(ownUser), places_(places), kept_(kept) {}

  // A place for a newcomer. `pushedOut` is called, at most once and from inside a later take(),
  // when the place has gone to another. Null only for an ordinary user while root and our own
  // user hold every place.
  std::unique_ptr<Place> take(std::uint32_t user, PushedOut pushedOut);

  std::size_t taken() const { return entries_.size(); }

  bool isFavoured(std::uint32_t user) const { return user == 0 || user == ownUser_; }

 private:
  struct Entry {
    std::uint32_t user;
    PushedOut pushedOut;
  };
  class Taken;

  bool makeRoom(std::uint32_t newcomer);

  const std::uint32_t ownUser_;
  const std::size_t places_;
  const std::size_t kept_;
  std::list<std::shared_ptr<Entry>> entries_;  // oldest first; shared with the place
};

// How many connections each user holds at a listener.
class PeerUserCounts : public std::enable_shared_from_this<PeerUserCounts> {
 public:
  class Held {
   public:
    virtual ~Held() = default;
  };
  // Counts one more until the handle goes; null where that would be more than `limit`.
  std::unique_ptr<Held> hold(std::uint32_t user, std::size_t limit);

 private:
  class One;
  std::map<std::uint32_t, std::size_t> counts_;
};

}  // namespace platform
