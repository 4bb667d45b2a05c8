#pragma once

#include <map>
#include <string>
#include <string_view>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The listening sockets of jobs' services, each a name in one folder. They stay bound for as long
// as their job is known, so that whoever connects while its process is being started again waits
// in the backlog and is not refused.
class MachSockets {
 public:
  // `folder` exists.
  static platform::Result<MachSockets> open(const std::string& folder);

  // The socket of `service`, bound now if it was not, in the place of whatever had its name. It
  // stays the property of this. kInvalid where it is another job's.
  platform::Result<platform::Descriptor> listen(const std::string& service, std::string_view label);

  // Keeps a socket that another host bound and a process of the job still had. Whether it is the
  // one that is connected to by that name.
  bool takeOver(const std::string& service, std::string_view label, platform::UniqueFd socket);

  // Closes it and takes its name away, where it is this job's.
  void close(const std::string& service, std::string_view label);
  // Takes the name of a service away that has no socket here, if there is one.
  void removeName(const std::string& service);

 private:
  struct Listener {
    std::string label;
    platform::UniqueFd socket;
  };

  explicit MachSockets(platform::UniqueFd folder) : folder_(std::move(folder)) {}

  platform::UniqueFd folder_;
  std::map<std::string, Listener> listeners_;
};

}  // namespace jobhost
