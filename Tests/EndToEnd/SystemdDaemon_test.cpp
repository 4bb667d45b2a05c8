// The daemon with a job host that lets systemd start the processes. Tests/boot-systemd boots one
// for this program.

#include <csignal>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class SystemdDaemon : public DaemonFixture {
 protected:
  SystemdDaemon() : DaemonFixture("<key>JobBackend</key><string>systemd</string>") {}
};

TEST_F(SystemdDaemon, ServicesKeepTheirProcessesWhenDaemonAndHostAreReplaced) {
  start(3);
  const std::map<std::string, ProcessId> before = pids();
  for (const auto& [label, process] : before) EXPECT_TRUE(isRunning(process)) << label;
  const std::size_t evaluated = evaluations();
  root_.expectStart();
  root_.killDaemon();
  root_.awaitStart();
  awaitEvaluation(evaluated);
  expectNoneLostNoneDoubled(before);
  root_.host().killHost();
  root_.host().startHost();
  EXPECT_EQ(pids(), before);
}

TEST_F(SystemdDaemon, AKilledServiceIsReported) {
  start(2);
  const ProcessId before = root_.processOf(DaemonRoot::label(1));
  EXPECT_NE(expectKilledServiceIsReported(DaemonRoot::label(1)), before);
}

}  // namespace
}  // namespace platform
