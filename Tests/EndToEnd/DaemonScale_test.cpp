// Ten thousand services. They need a gigabyte of memory or more.

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

constexpr int kServices = 10'000;

std::size_t countIn(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) ++count;
  return count;
}

class DaemonScaleLong : public testing::Test {
 protected:
  // They are far above what a quiet machine needs: a second for a list, 20 ms for an explanation.
  static constexpr Duration kListTime = 30s;
  static constexpr Duration kExplanationTime = 10s;
  static constexpr Duration kStartTime = 10min;

  struct Answer {
    std::string output;
    Duration time{};
  };

  // Each running service costs the job host a descriptor, and the daemon another one.
  static bool hasDescriptors() {
    rlimit limit{};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_max > kServices + 1000;
  }

  // The output goes to a file, because it does not fit into a pipe that nobody reads meanwhile.
  Answer control(const std::string& arguments) {
    const std::string output = root_.folder().path("control.output");
    const Instant start = root_.loop().now();
    ChildProgram program(
        {"/bin/sh", "-c", root_.host().controlProgram() + " " + arguments + " >" + output}, {});
    EXPECT_EQ(program.waitForExit(), kSuccess) << arguments << ": " << program.errors();
    const Duration time = root_.loop().now() - start;
    return {contentOfFile(output), time};
  }

  // They belong to a product whose services have a health record.
  static Dictionary catalogue() {
    Dictionary catalogue = DaemonRoot::catalogue(kServices);
    Dictionary services;
    for (const auto& [label, entry] : *catalogue["Services"].dictionary()) {
      Dictionary service = *entry.dictionary();
      service.set("Products", Array{"kKLXInstallTypeHostedManagedID"});
      services.set(label, std::move(service));
    }
    catalogue.set("Services", std::move(services));
    return catalogue;
  }

  DaemonRoot root_;
};

TEST_F(DaemonScaleLong, AllOfTenThousandServicesRunAndAreShown) {
  if (!hasDescriptors()) GTEST_SKIP() << "a process may open too few files";
  root_.setProductFile(
      "<plist version=\"1.0\"><dict><key>GUID</key>"
      "<string>71C0E5B9-2A8D-4F36-B0E4-9D63A1F2C875</string></dict></plist>");
  root_.setCatalogue(catalogue());
  const Instant start = root_.loop().now();
  root_.startDaemon();
  root_.awaitStart();
  std::size_t running = 0;
  while (running <= kServices && !HasFailure() && root_.loop().now() - start < kStartTime) {
    running = countIn(control("list --json").output, "\"running\"");
  }
  EXPECT_EQ(running, kServices + 1u);
  const Duration untilAllRun = root_.loop().now() - start;

  const Answer list = control("list");
  EXPECT_EQ(countIn(list.output, "\n"), kServices + 2u);
  EXPECT_LT(list.time, kListTime);
  const Answer explanation = control("explain " + DaemonRoot::label(kServices - 1));
  EXPECT_NE(explanation.output.find("runs as process"), std::string::npos) << explanation.output;
  EXPECT_LT(explanation.time, kExplanationTime);
  const Answer health = control("health --json");
  EXPECT_EQ(countIn(health.output, "\"label\""), kServices + 1u);
  const Answer jobs = control("jobs list");
  EXPECT_EQ(countIn(jobs.output, "\n"),
            kServices + 4u);  // the heading, the bus and the daemon, too
  const std::string one = DaemonRoot::label(kServices / 2);
  EXPECT_NE(control("stop " + one).output.find(one + " is stopped."), std::string::npos);
  EXPECT_NE(control("start " + one).output.find(one + " runs"), std::string::npos);

  const auto milliseconds = [](Duration time) {
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
  };
  RecordProperty("all_run_ms", milliseconds(untilAllRun));
  RecordProperty("list_ms", milliseconds(list.time));
  RecordProperty("explain_ms", milliseconds(explanation.time));
  RecordProperty("health_ms", milliseconds(health.time));
  RecordProperty("jobs_list_ms", milliseconds(jobs.time));
}

}  // namespace
}  // namespace platform
