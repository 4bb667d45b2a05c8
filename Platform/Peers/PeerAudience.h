#pragma once

#include <cstdint>
#include <optional>

namespace platform {

// Which processes may be at the other end of a connection besides root's and our own user's, by the
// kernel's credentials.
struct PeerAudience {
  bool everybody = false;
  std::optional<std::uint32_t> user = {};
  std::optional<std::uint32_t> group = {};  // the processes that were in it when they connected

  static PeerAudience all() { return {.everybody = true}; }

  // Whether the user is admitted, whatever its groups.
  bool admitsUser(std::uint32_t peer, std::uint32_t ownUser) const {
    return everybody || peer == 0 || peer == ownUser || peer == user;
  }

  // The mode of a listener's socket, whose group is `group`.
  std::uint32_t socketMode() const {
    if (everybody) return 0666;
    return group ? 0660 : 0600;
  }
};

}  // namespace platform
