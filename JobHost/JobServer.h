#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "JobHost/JobHost.h"
#include "JobHost/StartSubscription.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Serves the host's jobs to other processes (Platform/Linux/Jobs/JobHostMessages.h). Root and the
// host's own user may change and read them. The kernel's credentials of the connection decide.
// Every other caller is told that it may not. Belongs to the run loop's thread.
class JobServer {
 public:
  // Listens on the socket at `path`, whose folder exists. `user` is the host's own user. The
  // references outlive this.
  static platform::Result<std::unique_ptr<JobServer>> listen(platform::RunLoop& loop,
                                                             platform::PeerTransport& transport,
                                                             const std::string& path,
                                                             std::uint32_t user, JobHost& host,
                                                             platform::SystemLog& log);

  JobServer(const JobServer&) = delete;
  JobServer& operator=(const JobServer&) = delete;
  ~JobServer() {
    host_.setStartHandler({});
    host_.setChangeHandler({});
  }

 private:
  using ClientId = std::uint64_t;
  struct Client {
    std::unique_ptr<platform::PeerConnection> connection;
    StartSubscription starts;
  };

  JobServer(platform::RunLoop& loop, std::uint32_t user, JobHost& host, platform::SystemLog& log)
      : user_(user), host_(host), log_(log), refusals_(loop, log, "jobhost") {}

  void accept(std::unique_ptr<platform::PeerConnection> connection);
  void serve(ClientId client, bool isAllowed, platform::PeerMessage message);
  void serveAllowed(ClientId client, platform::PeerMessage message);
  void submit(platform::PeerMessage message);
  void remove(platform::PeerMessage message);
  void awaitStarts(StartSubscription& starts, std::unique_ptr<platform::PeerReply> reply);
  // Those of the jobs after this label, `most` at most.
  platform::Value copyStatesAfter(std::string label, std::size_t most);

  const std::uint32_t user_;
  JobHost& host_;
  platform::SystemLog& log_;
  platform::RefusalLog refusals_;
  std::map<ClientId, Client> clients_;
  ClientId lastClient_ = 0;
  std::unique_ptr<platform::PeerListener>
      listener_;  // Last, to be destroyed first: it calls accept().
};

}  // namespace jobhost
