#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {

// A daemon with the configuration server and some services, all running and watched.
class DaemonFixture : public testing::Test {
 protected:
  using Notice = UserInterfaceClient::Notice;

  // Starts a daemon with services 0 to `services` - 1, and makes a client that is told everything.
  void start(int services);
  // Waits until a daemon that has just started has evaluated all services; `before` is how often
  // that had happened when it was started, as evaluations() says.
  void awaitEvaluation(std::size_t before);
  std::size_t evaluations();

  std::vector<std::string> labels() const;
  // Each label's process, as the job host says.
  std::map<std::string, ProcessId> pids();
  // There is exactly one process for each label, which is that one.
  void expectNoneLostNoneDoubled(const std::map<std::string, ProcessId>& expected);

  // Kills the service. The client is told that it ended and then that it runs again; returns the
  // process that it was told.
  ProcessId expectKilledServiceIsReported(const std::string& label);

  DaemonRoot root_;
  int services_ = 0;
  std::unique_ptr<UserInterfaceClient> client_;
};

}  // namespace platform
