// The daemon's workers, each on a thread of its own.

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "ServiceManager/Workers/ExtensionWorker.h"
#include "ServiceManager/Workers/OperatorClients.h"
#include "ServiceManager/Workers/SettingsClientsWorker.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

// A platform root without a job host, a notification bus and servers.
class WorkersTest : public testing::Test {
 protected:
  using Perform = std::function<void(RunLoop::Callback work)>;

  WorkersTest() {
    root_.write("etc/vantor/platform.plist", "<plist version=\"1.0\"><dict/></plist>");
    linux_ = std::move(*LinuxPlatform::makeAt(root_.path()));
    places_.emplace(linux_->configuration);
    addGlobalSettingsProtocol(protocols_);
  }
  // To be called before the worker ends.
  void stop() { EXPECT_TRUE(thread_->stopWithin(1min)); }

  // Whether the worker does its work on another thread.
  static bool works(const Perform& perform) {
    const auto thread = std::make_shared<std::promise<std::thread::id>>();
    auto done = thread->get_future();
    perform([thread] { thread->set_value(std::this_thread::get_id()); });
    return done.wait_for(1min) == std::future_status::ready &&
           done.get() != std::this_thread::get_id();
  }

  TemporaryFolder root_;
  std::unique_ptr<LinuxPlatform> linux_;
  std::optional<ListenerPlaces> places_;
  ProtocolTable protocols_;
  FakeCodeSignatures signatures_;
  const std::unique_ptr<LoopThread> thread_ = *LoopThread::create();
};

TEST_F(WorkersTest, TheExtensionWorkerHasItsThread) {
  ExtensionWorker worker(*thread_, *linux_, signatures_);
  EXPECT_TRUE(works([&](RunLoop::Callback work) { worker.perform(std::move(work)); }));
  stop();
}

TEST_F(WorkersTest, TheSettingsWorkerHasItsClientsAtOnce) {
  SettingsClientsWorker clients(*thread_, *linux_, *places_, protocols_);
  const SettingsWorker worker = clients.worker();
  EXPECT_NE(worker.factories.find("cmxSettingsClientWithDelegate:"), nullptr);
  EXPECT_TRUE(works(worker.perform));
  stop();
}

TEST_F(WorkersTest, TheOperatorsWorkerHasItsThread) {
  OperatorClients clients(*thread_, *linux_, *places_, protocols_, signatures_);
  EXPECT_TRUE(works(clients.worker().perform));
  stop();
}

TEST_F(WorkersTest, TheOperatorWaitsLessForTheJobHostThanOthers) {
  OperatorClients clients(*thread_, *linux_, *places_, protocols_, signatures_);
  const OperatorWorker worker = clients.worker();
  const auto waited = std::make_shared<std::promise<Duration>>();
  worker.perform([&worker, waited] {
    const Instant start = monotonicTime();
    EXPECT_TRUE(worker.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, "com.example.a").isNil());
    waited->set_value(monotonicTime() - start);
  });
  EXPECT_LT(waited->get_future().get(), JobHostClient::kRestartTimeOut);
  stop();
}

TEST_F(WorkersTest, AnyThreadMayAskForSettings) {
  bool isAsked = false;
  askSettingsOnThisThread(*linux_, *places_, protocols_,
                          [&](const SettingsClientFactories& factories) {
                            EXPECT_NE(factories.find("cmxSettingsClientWithDelegate:"), nullptr);
                            isAsked = true;
                          });
  EXPECT_TRUE(isAsked);
}

}  // namespace
