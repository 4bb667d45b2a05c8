#include "ServiceManager/Workers/EndOfWorkers.h"

#include <algorithm>
#include <future>
#include <utility>

bool endTogether(const std::vector<platform::LoopThread*>& threads,
                 std::unique_ptr<platform::LinuxXPC> xpc, const platform::RunLoop& loop) {
  for (platform::LoopThread* thread : threads) thread->askToStop();
  const auto endOfXPC = xpc ? platform::LinuxXPC::endAside(std::move(xpc)) : std::future<void>();
  const platform::Instant deadline = loop.now() + kWorkersEnd;
  const auto left = [&] { return std::max(deadline - loop.now(), platform::Duration::zero()); };
  bool haveEnded = true;
  for (platform::LoopThread* thread : threads) haveEnded = thread->stopWithin(left()) && haveEnded;
  const bool hasXPCEnded =
      !endOfXPC.valid() || endOfXPC.wait_for(left()) == std::future_status::ready;
  return hasXPCEnded && haveEnded;
}
