#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/Peers/PeerTransport.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Value.h"

namespace jobhost {

// The starts of jobs that one client is told of (kAwaitJobStartsMessage). A client that does not
// ask again gets nothing, and costs at most kMaximumLabels labels.
class StartSubscription {
 public:
  static constexpr std::size_t kMaximumLabels = 1024;

  // Before the first await(). The programs of these jobs have changed before, while nobody could
  // tell the client.
  void begin(const std::vector<std::string>& changed);
  bool hasBegun() const { return hasBegun_; }

  // Answers now if a process was started since the last answer, and otherwise at the next start.
  void await(std::unique_ptr<platform::PeerReply> reply);

  // A process was started, or, if it is kNoProcess, could not be started. Ignored before begin().
  // Dropped if the client has left too many labels unread.
  void started(const std::string& label, platform::ProcessId process);

 private:
  void answer();

  bool hasBegun_ = false;
  platform::Dictionary unread_;                 // process by label
  std::unique_ptr<platform::PeerReply> reply_;  // null while the client has not asked again
};

}  // namespace jobhost
