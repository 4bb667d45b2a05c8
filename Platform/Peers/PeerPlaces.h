#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>

#include "Platform/Peers/PeerLimits.h"

namespace platform {

// The places of a listener for connections that it has not admitted yet. When all are taken, new
// connections are still accepted, or one user could keep all others out: the user with the most
// places loses its oldest. Some places are only for root and our own user.
class PeerPlaces : public std::enable_shared_from_this<PeerPlaces> {
 public:
  // Frees the place in its destructor.
  class Place {
   public:
    virtual ~Place() = default;
  };
  using PushedOut = std::function<void()>;

  explicit PeerPlaces(std::uint32_t ownUser, std::size_t places = kPeerPlaces,
                      std::size_t kept = kReservedPeerPlaces)
      : ownUser_(ownUser), places_(places), kept_(kept) {}

  // A place for a new connection. `pushedOut` is called, at most once and from inside a later
  // take(), when another connection has got the place. Null only for an ordinary user while root
  // and our own user have every place.
  std::unique_ptr<Place> take(std::uint32_t user, PushedOut pushedOut);

  std::size_t taken() const { return entries_.size(); }

 private:
  struct Entry {
    std::uint32_t user;
    PushedOut pushedOut;
  };
  class Taken;

  bool isPrivileged(std::uint32_t user) const { return user == 0 || user == ownUser_; }
  bool makeRoom(std::uint32_t newcomer);

  const std::uint32_t ownUser_;
  const std::size_t places_;
  const std::size_t kept_;
  std::list<std::shared_ptr<Entry>> entries_;  // oldest first; shared with the place
};

}  // namespace platform
