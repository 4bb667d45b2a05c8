#pragma once

#include <cstdint>
#include <memory>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Requests to replace this host by the installed program: SIGHUP, which is blocked while this
// lives. Make it before there are other threads. A request that comes before the watch, or while
// one program replaces the other, stays pending.
class ReplacementRequests {
 public:
  ReplacementRequests();
  ReplacementRequests(const ReplacementRequests&) = delete;
  ReplacementRequests& operator=(const ReplacementRequests&) = delete;

  // Calls `onRequest` on the loop, which outlives the handle.
  platform::Result<std::unique_ptr<platform::RunLoopHandle>> watch(
      platform::RunLoop& loop, platform::RunLoop::Callback onRequest) const;
};

// Executes the program that lies at this one's path now, in this process. Its jobs go on, and the
// new program takes them over as after a kill; the service manager sees the same process. Returns
// only if that fails, and then nothing has changed. It gets this soft limit of open descriptors.
platform::Error replaceProgram(std::uint64_t descriptorLimit);

}  // namespace jobhost
