#include "Tests/EndToEnd/Storm.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tests/EndToEnd/DaemonExtensions_fixture.h"
#include "Tests/EndToEnd/ExitStatuses.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {
namespace {

constexpr char kMissing[] = "com.example.nke.missing";
constexpr char kDeaf[] = "com.example.nke.deaf";
constexpr char kNobody[] = "65534";

// A service that fails after its own time: five without a throttle, five with the default one, the
// others with throttles of one to five seconds.
Dictionary crashLoop(int number) {
  Dictionary service = DaemonRoot::service(Storm::crashing(number));
  Dictionary job = *service["JobSpec"].dictionary();
  const int lifetime = number < 2 ? 0 : 170 * number;  // milliseconds
  job.set("ProgramArguments", Array{Storm::crashing(number), std::to_string(lifetime)});
  if (number >= 15) {
    job.remove("ThrottleInterval");
  } else if (number >= 5) {
    job.set("ThrottleInterval", 1 + number % 5);
  }
  service.set("JobSpec", std::move(job));
  return service;
}

}  // namespace

Storm::Storm(Weather weather) : weather_(weather) {
  // The other user may look for the daemon's socket.
  std::filesystem::permissions(root_.path(), std::filesystem::perms(0755));
  installExtension(root_, kDeaf,
                   weather_ == Weather::kStorm ? "<key>ControlIsDeaf</key><true/>" : "");
  if (weather_ == Weather::kQuiet) installExtension(root_, kMissing);
  root_.setCatalogue(catalogue());
  root_.startDaemon();
  root_.awaitStart();
  std::vector<std::string> labels;
  for (int i = 0; i < kHealthy; ++i) labels.push_back(healthy(i));
  root_.awaitLog("Evaluating service: " + labels.back() + "\n");
  awaitServices(root_, labels);
  if (weather_ == Weather::kStorm) beginStorm();
}

Storm::~Storm() {
  silentClients_.reset();
  // A stopped process would end only after its time-out.
  if (const ProcessId server = root_.processOf(DaemonRoot::kPrimary); server > 0)
    ::kill(server, SIGCONT);
}

std::string Storm::crashing(int number) {
  return "com.vantor.test.crashing." + std::to_string(number);
}

Dictionary Storm::catalogue() const {
  Dictionary catalogue = DaemonRoot::catalogue(kHealthy);
  Dictionary services = *catalogue["Services"].dictionary();
  for (int i = 0; i < kCrashing; ++i) {
    services.set(crashing(i),
                 weather_ == Weather::kStorm ? crashLoop(i) : DaemonRoot::service(crashing(i)));
  }
  for (const auto& [label, extension] :
       {std::pair{kNeedsMissing, "missing"}, {kNeedsDeaf, "deaf"}}) {
    Dictionary service = DaemonRoot::service(label);
    service.set("KernelExtensions", Array{extension});
    services.set(label, std::move(service));
  }
  // Each evaluation asks the settings server for its switch.
  Dictionary switched = DaemonRoot::service(kSwitched);
  switched.set("Features", Array{"feature"});
  services.set(kSwitched, std::move(switched));
  catalogue.set("Services", std::move(services));
  const Dictionary switches{{"Source", "common"}, {"Switches", Dictionary{{"on", 1}}}};
  catalogue.set("Features", Dictionary{{"feature", Dictionary{{"Config", Array{switches}}}}});
  catalogue.set("KernelExtensions", Dictionary{{"missing", Dictionary{{"Identifier", kMissing}}},
                                               {"deaf", Dictionary{{"Identifier", kDeaf}}}});
  return catalogue;
}

void Storm::beginStorm() {
  if (::geteuid() == 0) {
    silentClients_.emplace(std::vector<std::string>{SILENT_CLIENTS_PROGRAM, root_.path(), kNobody,
                                                    std::to_string(kSilentClients)},
                           std::vector<std::string>{});
    EXPECT_EQ(silentClients_->nextLine(), "registered");
  }
  root_.kill(DaemonRoot::kPrimary, SIGSTOP);
}

Duration Storm::control(const std::vector<std::string>& arguments, const std::string& text) {
  const auto start = root_.loop().now();
  const auto finished = root_.host().control(arguments);
  const Duration time = root_.loop().now() - start;
  EXPECT_EQ(finished.status, kSuccess) << finished.errors;
  EXPECT_NE(finished.output.find(text), finished.output.npos) << finished.output;
  return time;
}

Duration Storm::killUntilBack(const std::string& label) {
  UserInterfaceClient client(root_);
  client.registerClient();
  const ProcessId before = root_.processOf(label);
  EXPECT_GT(before, 0) << label;
  if (before <= 0) return {};
  const auto start = root_.loop().now();
  EXPECT_EQ(::kill(before, SIGKILL), 0);
  root_.await(label + " to be back", [&] { return client.hasNotice(label, 1); });
  return root_.loop().now() - start;
}

Duration Storm::terminate() {
  const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
  EXPECT_GT(daemon, 0);
  const UniqueFd pidfd(::pidfd_open(daemon, 0));
  pollfd entry{.fd = pidfd.get(), .events = POLLIN, .revents = 0};
  root_.expectStart();
  const auto start = root_.loop().now();
  root_.kill(DaemonRoot::kDaemon, SIGTERM);
  EXPECT_EQ(::poll(&entry, 1, 60'000), 1) << "the daemon does not end";
  const Duration time = root_.loop().now() - start;
  root_.awaitStart();
  return time;
}

long Storm::memory() {
  std::ifstream file("/proc/" + std::to_string(root_.processOf(DaemonRoot::kDaemon)) + "/status");
  for (std::string name; file >> name;) {
    long size = 0;
    if (name == "RssAnon:" && file >> size) return size;
  }
  ADD_FAILURE() << "the daemon is gone";
  return 0;
}

void Storm::expectNoneDoubled() const {
#ifdef __SANITIZE_ADDRESS__
  return;  // Its search for leaks at a program's end is a process of its own with the same name.
#endif
  std::map<std::string, ProcessId> found;
  for (const auto& [label, process] : root_.processes()) {
    const auto [other, isFirst] = found.emplace(label, process);
    // The list takes a moment, in which one may have ended and the next one have begun.
    EXPECT_TRUE(isFirst || !isRunning(other->second) || !isRunning(process))
        << label << " has the processes " << other->second << " and " << process;
  }
}

}  // namespace platform
