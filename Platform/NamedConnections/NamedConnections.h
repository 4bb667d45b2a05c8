#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Logging/RefusalLog.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"

namespace platform {

// Makes connections between the programs of this machine, by name. Belongs to the loop's thread;
// the connections that it makes must not outlive it.
class NamedConnections {
 public:
  // A server that did not answer in time when a client connected is not asked again for so long, so
  // that it costs one wait and not one for each message.
  static constexpr Duration kSilentServerPause = std::chrono::seconds(30);

  // Which file stands for a name.
  using PathOfName = std::function<std::string(std::string_view name)>;

  // All but `path` outlive this.
  NamedConnections(RunLoop& loop, PeerTransport& transport, NotificationCenter& center,
                   SystemLog& log, PathOfName path);
  NamedConnections(const NamedConnections&) = delete;
  NamedConnections& operator=(const NamedConnections&) = delete;

  // A connection of a server, yet without a name.
  std::shared_ptr<NSConnection> makeConnection();

  // connectionWithRegisteredName:host: - a connection to the server that has registered `name`, not
  // yet authenticated. Null where there is none, or it did not answer lately. Blocks for 5 seconds
  // at most. There is only this machine, which no host, an empty one and "*" stand for.
  std::shared_ptr<NSConnection> connectionWithRegisteredName(
      std::string_view name, const std::optional<std::string>& host = std::nullopt);

  // The same for who only looks: it blocks for `timeout` at most, and neither it nor the connection
  // leaves it behind that a server was silent.
  std::shared_ptr<NSConnection> lookAtRegisteredName(std::string_view name, Duration timeout);

  // A server has announced itself by `name`: it is asked again even if that name was silent.
  void serverDidStart(std::string_view name) { silentUntil_.erase(std::string(name)); }

 private:
  friend class NSConnection;

  bool isSilent(const std::string& name);
  std::expected<std::shared_ptr<NSConnection>, PeerConnectFailure::Kind> connect(
      const std::string& name, const PeerConnectOptions& options);
  // That nothing came from `name` in time.
  void noteSilence(const std::string& name);

  RunLoop& loop_;
  PeerTransport& transport_;
  NotificationCenter& center_;
  RefusalLog failures_;  // of this program's own calls
  RefusalLog refusals_;  // of peers, who must not be able to hide the others
  PathOfName path_;
  // Only names that this program itself looks up.
  std::map<std::string, Instant> silentUntil_;
};

}  // namespace platform
