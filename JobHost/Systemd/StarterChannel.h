#pragma once

#include <optional>
#include <span>
#include <string>

#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/JobMark.h"
#include "JobHost/Processes/ProgramFile.h"
#include "JobHost/Systemd/StartMessage.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The host's end of the channel to the starter of one process.
class StarterChannel {
 public:
  // The descriptors that the process gets. `standardInput` is open.
  struct Passed {
    platform::Descriptor standardInput = -1;
    std::span<const platform::Descriptor> listeners;
    const ProgramFile* program = nullptr;  // null for none
  };

  static platform::Result<StarterChannel> open(const JobDefinition& job, const JobMark& mark,
                                               const Passed& passed);

  // For the standard input of the unit.
  platform::Descriptor endOfStarter() const { return starterEnd_.get(); }
  // To be called when systemd has that end: otherwise the host does not notice when the starter
  // ends.
  void closeEndOfStarter() { starterEnd_.reset(); }
  // Readable when the starter has said that it is ready, or has ended.
  platform::Descriptor readiness() const { return hostEnd_.get(); }

  // The number of the starter that is ready. Empty if it has ended.
  std::optional<platform::ProcessId> takeReady();

  // Lets the starter execute the program.
  platform::Result<void> go();
  // Whether the starter executes the program, or has said why it can't, within `limit`.
  bool awaitExecution(platform::Duration limit);
  // To be called after awaitExecution(). Fails if the program is not executed.
  platform::Result<void> takeExecution(const JobDefinition& job);

 private:
  platform::UniqueFd hostEnd_;
  platform::UniqueFd starterEnd_;
  platform::UniqueFd failures_;
};

}  // namespace jobhost
