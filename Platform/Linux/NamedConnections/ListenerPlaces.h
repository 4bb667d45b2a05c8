#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Platform/Peers/ListenerPlace.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

// Where the listeners of a platform root are, and who may reach and who may own them, by
// platform.plist. Its group and users are looked up when this is made. If one does not exist,
// nobody gets its rights; the job host does not start then.
class ListenerPlaces {
 public:
  explicit ListenerPlaces(const PlatformConfiguration& configuration);

  ListenerPlace connection(std::string_view name) const;
  ListenerPlace machService(std::string_view name) const;

  // The users who may connect by an endpoint are those who may look it up.
  PeerAudience endpointClients() const;

  // The owners of listeners without an owner of their own: root and the job host's user.
  PeerAudience servers() const;

  const std::string& root() const { return root_; }

 private:
  struct Owner {
    std::string name;
    std::optional<std::uint32_t> user;
  };

  PeerAudience clientsOf(std::string_view listener) const;

  std::string root_;
  std::optional<std::uint32_t> productUser_;
  std::optional<std::uint32_t> group_;
  std::set<std::string, std::less<>> open_;
  std::map<std::string, Owner, std::less<>> owners_;  // by the connection's name
};

}  // namespace platform
