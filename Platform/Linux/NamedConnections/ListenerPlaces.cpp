#include "Platform/Linux/NamedConnections/ListenerPlaces.h"

#include <sys/stat.h>

#include "Platform/Linux/NamedConnections/AccountNumbers.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"

namespace platform {
namespace {

constexpr std::string_view kRegistry = "com.vantor.common.servicemanager";

// The owner of the folder above all sockets, which the job host makes and nobody else may write.
std::optional<std::uint32_t> userOfJobHost(const std::string& root) {
  struct stat status{};
  if (::lstat(pathBelowRoot(root, "run/vantor").c_str(), &status) != 0) return std::nullopt;
  if (!S_ISDIR(status.st_mode)) return std::nullopt;
  return status.st_uid;
}

template <typename Number>
std::optional<std::uint32_t> known(const Result<Number>& number) {
  return number ? std::optional<std::uint32_t>(*number) : std::nullopt;
}

}  // namespace

ListenerPlaces::ListenerPlaces(const PlatformConfiguration& configuration)
    : root_(configuration.root),
      productUser_(userOfJobHost(root_)),
      open_(configuration.openListeners.begin(), configuration.openListeners.end()) {
  if (configuration.group) group_ = known(groupNumber(*configuration.group));
  for (const auto& [name, user] : configuration.nameOwners) {
    owners_[name] = {user, known(userNumber(user))};
  }
}

ListenerPlace ListenerPlaces::connection(std::string_view name) const {
  const auto owner = owners_.find(name);
  if (owner == owners_.end()) return {pathOfConnection(root_, name), clientsOf(name), servers()};
  return {pathOfUsersConnection(root_, owner->second.name, name), clientsOf(name),
          PeerAudience{.everybody = false, .user = owner->second.user, .group = {}}};
}

ListenerPlace ListenerPlaces::machService(std::string_view name) const {
  return {pathOfMachService(root_, name), clientsOf(name), servers()};
}

PeerAudience ListenerPlaces::endpointClients() const { return clientsOf(kRegistry); }

PeerAudience ListenerPlaces::servers() const {
  return {.everybody = false, .user = productUser_, .group = {}};
}

PeerAudience ListenerPlaces::clientsOf(std::string_view listener) const {
  if (open_.contains(listener)) return PeerAudience::all();
  return {.everybody = false, .user = {}, .group = group_};
}

}  // namespace platform
