// The contract of Jobs with a host that lets systemd start the processes. Tests/boot-systemd boots
// one for this program.

#include <memory>

#include <gtest/gtest.h>

#include "Platform/Jobs/Jobs_contract.h"
#include "Tests/EndToEnd/RealJobsMachine_fixture.h"

namespace platform {
namespace {

constexpr char kBackend[] = "<key>JobBackend</key><string>systemd</string>";

std::unique_ptr<JobsMachine> makeSystemdMachine() {
  return std::make_unique<RealJobsMachine>(kBackend);
}

INSTANTIATE_TEST_SUITE_P(Systemd, JobsContract, testing::Values(&makeSystemdMachine));

}  // namespace
}  // namespace platform
