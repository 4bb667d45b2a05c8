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

  // See DaemonRoot.
  explicit DaemonFixture(const std::string& configuration = {},
                         const DaemonRoot::PrepareLog& prepareLog = {})
      : root_(configuration, prepareLog) {}

  // Starts a daemon with services 0 to `services` - 1, and makes a client that gets all
  // notifications.
  void start(int services) { start(services, DaemonRoot::catalogue(services)); }
  void start(int services, const Dictionary& catalogue);
  // Waits until a daemon that has just started has evaluated all services; `before` is the result
  // of evaluations() before its start.
  void awaitEvaluation(std::size_t before);
  std::size_t evaluations();

  std::vector<std::string> labels() const;
  // Each label's process, from the job host.
  std::map<std::string, ProcessId> pids();
  // Expects exactly one process for each label, and this one.
  void expectNoneLostNoneDoubled(const std::map<std::string, ProcessId>& expected);

  // Kills the service. Expects the client to be notified of its end and then of its new start;
  // returns the process in that notification.
  ProcessId expectKilledServiceIsReported(const std::string& label);

  DaemonRoot root_;
  int services_ = 0;
  std::unique_ptr<UserInterfaceClient> client_;
};

}  // namespace platform
