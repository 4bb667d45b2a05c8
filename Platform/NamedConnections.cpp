#include "Platform/NamedConnections.h"

#include <utility>

#include "Platform/StringFormat.h"

namespace platform {
namespace {

constexpr char kIdent[] = "NSConnection";

}  // namespace

NamedConnections::NamedConnections(RunLoop& loop, PeerTransport& transport,
                                   NotificationCenter& center, SystemLog& log, PathOfName path)
    : loop_(loop),
      transport_(transport),
      center_(center),
      failures_(loop, log, kIdent),
      refusals_(loop, log, kIdent),
      path_(std::move(path)) {}

std::shared_ptr<NSConnection> NamedConnections::makeConnection() {
  return std::make_shared<NSConnection>(NSConnection::Maker(), *this, NSConnection::Role::kServer,
                                        std::string(), nullptr, std::weak_ptr<NSConnection>());
}

std::shared_ptr<NSConnection> NamedConnections::connectionWithRegisteredName(
    std::string_view name, const std::optional<std::string>& host) {
  if (name.empty() || (host && !host->empty() && *host != "*")) return nullptr;
  std::string server(name);
  if (const auto silent = silentUntil_.find(server); silent != silentUntil_.end()) {
    if (loop_.now() < silent->second) return nullptr;
    silentUntil_.erase(silent);
  }
  auto peer = transport_.connect(path_(name), {});
  if (!peer) {
    using Kind = PeerConnectFailure::Kind;
    const PeerConnectFailure& failure = peer.error();
    if (failure.kind == Kind::kTimedOut) noteSilence(server);
    if (failure.kind != Kind::kNobodyThere)
      failures_.write(
          stringWithFormat("No connection with \"%@\": %@", server, describe(failure.error)));
    return nullptr;
  }
  auto connection = std::make_shared<NSConnection>(NSConnection::Maker(), *this,
                                                   NSConnection::Role::kClient, std::move(server),
                                                   std::move(*peer), std::weak_ptr<NSConnection>());
  connection->listenToPeer();
  return connection;
}

void NamedConnections::noteSilence(const std::string& name) {
  silentUntil_[name] = loop_.now() + kSilentServerPause;
}

}  // namespace platform
