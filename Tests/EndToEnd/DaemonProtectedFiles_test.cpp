// A machine that protects pipes and files in shared folders, as Debian has it.

#include <memory>

#include <gmock/gmock.h>
#include <unistd.h>

#include "Platform/Testing/Machine/ProtectedFiles.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonProtectedFiles : public DaemonFixture {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can change settings of the kernel";
    protection_ = ProtectedFiles::turnOn();
    if (!protection_) {
      GTEST_SKIP() << "fs.protected_fifos and fs.protected_regular are not writable";
    }
  }

  std::unique_ptr<ProtectedFiles> protection_;
};

TEST_F(DaemonProtectedFiles, EverythingStartsAgainAfterItsDeath) {
  start(1);
  root_.host().killHost();
  root_.host().startHost();
  for (int turn = 0; turn < 2; ++turn) {
    const std::size_t before = evaluations();
    root_.killDaemon();
    root_.awaitStart();
    awaitEvaluation(before);
  }
  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
  expectKilledServiceIsReported(DaemonRoot::kPrimary);
  expectKilledServiceIsReported(DaemonRoot::label(0));
  // Its process runs before it serves.
  root_.await("the settings server", [this] {
    return root_.host().control({"settings", "set", "common", "Key", "value"}).status ==
           ExitStatus{};
  });
  const auto found =
      root_.host().control({"endpoints", "lookup", "com.vantor.xpc.name.execinfohandler"});
  EXPECT_EQ(found.status, ExitStatus{}) << found.errors;
}

}  // namespace
}  // namespace platform
