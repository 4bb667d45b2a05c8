#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Peers/PeerAudience.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The listening sockets of jobs' services, each with a name in one folder. A socket stays bound for
// as long as its job is known, so that a client that connects while the process is being restarted
// waits in the backlog and is not refused.
class MachSockets {
 public:
  // The users who may connect to a service.
  using AudienceOf = std::function<platform::PeerAudience(std::string_view service)>;

  // `folder` exists.
  static platform::Result<MachSockets> open(const std::string& folder, AudienceOf audience);

  // The socket of `service`. Binds it if it is not bound, and replaces any file of that name. This
  // keeps owning it. kInvalid if it is another job's.
  platform::Result<platform::Descriptor> listen(const std::string& service, std::string_view label);

  // The same if it is bound already, else -1.
  platform::Descriptor find(const std::string& service, std::string_view label) const;
  // Whether a client waits in its backlog.
  bool hasClient(const std::string& service, std::string_view label) const;

  // Keeps a socket that another host bound and a process of the job still has. False if clients
  // that connect by the name do not reach it.
  bool takeOver(const std::string& service, std::string_view label, platform::UniqueFd socket);

  // Closes the socket and removes its name, if it is this job's.
  void close(const std::string& service, std::string_view label);
  // Removes the name of a service that has no socket here.
  void removeName(const std::string& service);

 private:
  struct Listener {
    std::string label;
    platform::UniqueFd socket;
  };

  MachSockets(platform::UniqueFd folder, AudienceOf audience)
      : folder_(std::move(folder)), audience_(std::move(audience)) {}

  platform::Result<platform::UniqueFd> bindListener(const std::string& service) const;
  bool permit(const std::string& file, const std::string& service) const;

  platform::UniqueFd folder_;
  AudienceOf audience_;
  std::map<std::string, Listener> listeners_;
};

}  // namespace jobhost
