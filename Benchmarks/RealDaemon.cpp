#include "Benchmarks/RealDaemon.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

namespace benchmarks {

using namespace platform;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void awaitUnchangedFiles() { ::usleep(2'200'000); }

bool hasFailed() { return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed(); }

RealDaemon::RealDaemon(int services) {
  root_.setCatalogue(DaemonRoot::catalogue(services));
  awaitUnchangedFiles();
  root_.startDaemon();
  root_.awaitStart();
  const std::string last = DaemonRoot::label(services - 1);
  root_.awaitLog("Evaluating service: " + last + "\n");
  std::vector<std::string> labels{DaemonRoot::kPrimary};
  for (int i = 0; i < services; ++i) labels.push_back(DaemonRoot::label(i));
  awaitServices(root_, labels);
  client_.emplace(root_);
  isReady_ = client_->ask("pidForService:", {last}).has_value() && !hasFailed();
}

}  // namespace benchmarks
