#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace benchmarks {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start);

// Verdicts on a file are cached once it has not changed for two seconds; the files of an installed
// product are older than that.
void awaitUnchangedFiles();

// The root's own checks report to a test, and nowhere without one.
bool hasFailed();

// The real daemon with this many services, all of which have been evaluated.
class RealDaemon {
 public:
  explicit RealDaemon(int services);

  bool isReady() const { return isReady_; }
  platform::DaemonRoot& root() { return root_; }
  platform::UserInterfaceClient& client() { return *client_; }

 private:
  platform::DaemonRoot root_;
  std::optional<platform::UserInterfaceClient> client_;
  bool isReady_ = false;
};

}  // namespace benchmarks
