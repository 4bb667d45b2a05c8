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
#include "Platform/Logging/UserLines.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Peers/ListenerPlace.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"

namespace platform {

// Makes connections between the programs of this machine, by name. Belongs to the loop's thread;
// its connections must not outlive it.
class NamedConnections {
 public:
  // After a server has not answered a connecting client in time, it is not asked again for this
  // long. So it costs one time-out and not one for each message.
  static constexpr Duration kHungServerPause = std::chrono::seconds(30);

  // Returns where the listener of a name is.
  using PlaceOfName = std::function<ListenerPlace(std::string_view name)>;

  // The references outlive this. `lines` are the limits for lines about peers, which a program with
  // other servers shares with them; without them it has its own.
  NamedConnections(RunLoop& loop, PeerTransport& transport, NotificationCenter& center,
                   SystemLog& log, PlaceOfName place, std::shared_ptr<UserLines> lines = nullptr);
  NamedConnections(const NamedConnections&) = delete;
  NamedConnections& operator=(const NamedConnections&) = delete;

  // A server's connection without a name.
  std::shared_ptr<NSConnection> makeConnection();

  // connectionWithRegisteredName:host: - a connection to the server that has registered `name`, not
  // yet authenticated. Null if there is none, or it has recently not answered. Blocks for at most 5
  // seconds. There is only this machine, which is meant by no host, an empty host and "*".
  std::shared_ptr<NSConnection> connectionWithRegisteredName(
      std::string_view name, const std::optional<std::string>& host = std::nullopt);

  // The same for a probe: it blocks for at most `timeout`, and a server that does not answer it or
  // its connection does not count as hung.
  std::shared_ptr<NSConnection> probeRegisteredName(std::string_view name, Duration timeout);

  // Whether the server has not answered lately, and is not asked for that reason.
  bool isHung(const std::string& name);

  // A server has announced itself by `name`: ask it again even if it counted as hung.
  void serverDidStart(std::string_view name) { hungUntil_.erase(std::string(name)); }

 private:
  friend class NSConnection;

  std::expected<std::shared_ptr<NSConnection>, PeerConnectFailure::Kind> connect(
      const std::string& name, PeerConnectOptions options);
  // Records that `name` did not answer in time.
  void markHung(const std::string& name);

  RunLoop& loop_;
  PeerTransport& transport_;
  NotificationCenter& center_;
  RefusalLog failures_;  // of this program's own calls
  RefusalLog refusals_;  // of peers, separate so that they can't suppress the others
  PlaceOfName place_;
  // Contains only names that this program itself looks up.
  std::map<std::string, Instant> hungUntil_;
};

}  // namespace platform
