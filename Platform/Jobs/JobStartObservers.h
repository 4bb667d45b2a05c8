#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "Platform/Jobs/Jobs.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// The observers of Jobs::observeStarts(). Belongs to the run loop's thread.
class JobStartObservers {
 public:
  // Observes until the handle is destroyed, which may outlive this.
  [[nodiscard]] std::unique_ptr<RunLoopHandle> add(Jobs::StartObserver observer);

  // Calls all, in the order of adding. An observer that is dropped before its turn is not called.
  void report(std::string_view label, Jobs::Start start);

  bool empty() const;

 private:
  class Handle;
  // Shared with their handles, and with a running call.
  std::vector<std::weak_ptr<Jobs::StartObserver>> observers_;
};

}  // namespace platform
