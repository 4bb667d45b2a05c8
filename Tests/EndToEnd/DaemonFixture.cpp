#include "Tests/EndToEnd/DaemonFixture.h"

#include <csignal>

namespace platform {

void DaemonFixture::start(int services, const Dictionary& catalogue) {
  services_ = services;
  root_.setCatalogue(catalogue);
  const std::size_t before = evaluations();
  root_.startDaemon();
  root_.awaitStart();
  awaitEvaluation(before);
  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
}

std::size_t DaemonFixture::evaluations() {
  return root_.logCount("Evaluating service: " + DaemonRoot::label(services_ - 1) + "\n");
}

void DaemonFixture::awaitEvaluation(std::size_t before) {
  root_.await("the evaluation of all services", [&] { return evaluations() > before; });
  awaitServices(root_, labels());
}

std::vector<std::string> DaemonFixture::labels() const {
  std::vector<std::string> labels{DaemonRoot::kPrimary};
  for (int i = 0; i < services_; ++i) labels.push_back(DaemonRoot::label(i));
  return labels;
}

std::map<std::string, ProcessId> DaemonFixture::pids() {
  std::map<std::string, ProcessId> pids;
  for (const std::string& label : labels()) pids[label] = root_.processOf(label);
  return pids;
}

void DaemonFixture::expectNoneLostNoneDoubled(const std::map<std::string, ProcessId>& expected) {
  EXPECT_EQ(pids(), expected);
  EXPECT_EQ(root_.processes(),
            (std::vector<std::pair<std::string, ProcessId>>(expected.begin(), expected.end())));
}

ProcessId DaemonFixture::expectKilledServiceIsReported(const std::string& label) {
  client_->forgetNotices();
  const ProcessId before = root_.processOf(label);
  EXPECT_GT(before, 0) << label;
  if (before <= 0) return 0;
  EXPECT_EQ(::kill(before, SIGKILL), 0);
  root_.await(label + " to be back", [&] { return client_->hasNotice(label, 1); });
  const ProcessId now = root_.processOf(label);
  EXPECT_EQ(client_->notices(), (std::vector<Notice>{{label, 0, 0}, {label, 1, now}}));
  EXPECT_NE(now, before);
  return now;
}

}  // namespace platform
