#include "Platform/NamedConnections/NamedConnections.h"

#include <utility>

#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

constexpr char kIdent[] = "NSConnection";

}  // namespace

NamedConnections::NamedConnections(RunLoop& loop, PeerTransport& transport,
                                   NotificationCenter& center, SystemLog& log, PlaceOfName place,
                                   std::shared_ptr<UserLines> lines)
    : loop_(loop),
      transport_(transport),
      center_(center),
      failures_(loop, log, kIdent),
      refusals_(lines ? RefusalLog(log, kIdent, std::move(lines)) : RefusalLog(loop, log, kIdent)),
      place_(std::move(place)) {}

std::shared_ptr<NSConnection> NamedConnections::makeConnection() {
  return std::make_shared<NSConnection>(NSConnection::Maker(), *this, NSConnection::Role::kServer,
                                        std::string(), nullptr, std::weak_ptr<NSConnection>());
}

std::shared_ptr<NSConnection> NamedConnections::connectionWithRegisteredName(
    std::string_view name, const std::optional<std::string>& host) {
  if (name.empty() || (host && !host->empty() && *host != "*")) return nullptr;
  const std::string server(name);
  if (isHung(server)) return nullptr;
  auto connection = connect(server, {});
  if (connection) return *std::move(connection);
  if (connection.error() == PeerConnectFailure::Kind::kTimedOut) markHung(server);
  return nullptr;
}

std::shared_ptr<NSConnection> NamedConnections::probeRegisteredName(std::string_view name,
                                                                    Duration timeout) {
  const std::string server(name);
  if (server.empty() || isHung(server)) return nullptr;
  auto connection = connect(server, {.timeout = timeout});
  if (!connection) return nullptr;
  (*connection)->isProbe_ = true;
  return *std::move(connection);
}

bool NamedConnections::isHung(const std::string& name) {
  const auto hung = hungUntil_.find(name);
  if (hung == hungUntil_.end()) return false;
  if (loop_.now() < hung->second) return true;
  hungUntil_.erase(hung);
  return false;
}

std::expected<std::shared_ptr<NSConnection>, PeerConnectFailure::Kind> NamedConnections::connect(
    const std::string& name, PeerConnectOptions options) {
  using Kind = PeerConnectFailure::Kind;
  const ListenerPlace place = place_(name);
  options.servers = place.servers;
  auto peer = transport_.connect(place.path, options);
  if (!peer) {
    const PeerConnectFailure& failure = peer.error();
    if (failure.kind != Kind::kNobodyThere)
      failures_.write(
          stringWithFormat("No connection with \"%@\": %@", name, describe(failure.error)));
    return std::unexpected(failure.kind);
  }
  auto connection =
      std::make_shared<NSConnection>(NSConnection::Maker(), *this, NSConnection::Role::kClient,
                                     name, std::move(*peer), std::weak_ptr<NSConnection>());
  connection->listenToPeer();
  return connection;
}

void NamedConnections::markHung(const std::string& name) {
  hungUntil_[name] = loop_.now() + kHungServerPause;
}

}  // namespace platform
