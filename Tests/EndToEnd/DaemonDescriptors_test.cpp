// A daemon whose clients use up its descriptors.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Tests/EndToEnd/CrudeClient.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class DaemonDescriptors : public DaemonFixture {
 protected:
  // The daemon may open so many more descriptors.
  void leaveDescriptors(rlim_t more) {
    const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
    const std::filesystem::directory_iterator open("/proc/" + std::to_string(daemon) + "/fd");
    rlimit limit{};
    limit.rlim_cur = limit.rlim_max =
        static_cast<rlim_t>(std::distance(begin(open), end(open))) + more;
    ASSERT_EQ(::prlimit(daemon, RLIMIT_NOFILE, &limit, nullptr), 0);
  }

  // Whether the daemon takes another client.
  bool addClient() {
    auto client = root_.transport().connect(
        pathOfConnection(root_.path(), UserInterfaceClient::kServer), {.timeout = 60s});
    if (!client) return false;
    const Value token(systemProfileData(root_.system()));
    if (!(*client)->call(CrudeClient::kAuthenticate, {token}, 60s)) return false;
    clients_.push_back(std::move(*client));
    return true;
  }

  std::vector<std::unique_ptr<PeerConnection>> clients_;
};

TEST_F(DaemonDescriptors, TheLastOnesAreForWatchingAndForTheOperator) {
  constexpr int kServices = 10;
  constexpr rlim_t kMore = 150;
  start(kServices);
  const auto before = pids();
  ASSERT_NO_FATAL_FAILURE(leaveDescriptors(kMore));
  for (rlim_t i = 0; i < kMore && addClient(); ++i) continue;
  EXPECT_GT(clients_.size(), 20u);
  EXPECT_LT(clients_.size(), kMore);
  EXPECT_FALSE(addClient());

  const std::string killed = DaemonRoot::label(3);
  auto expected = before;
  expected[killed] = expectKilledServiceIsReported(killed);
  EXPECT_NE(expected[killed], before.at(killed));
  expectNoneLostNoneDoubled(expected);
  EXPECT_EQ(root_.logCount("appears to be damaged"), 0u);
  const auto listed = root_.host().control({"list"});
  EXPECT_EQ(listed.status.number, 0) << listed.errors;
}

}  // namespace
}  // namespace platform
