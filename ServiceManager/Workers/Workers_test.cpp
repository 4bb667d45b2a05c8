// The daemon's workers, each on a thread of its own.

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
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

  // Expects that the worker has a thread that logs as the service manager.
  void expectThread(const Perform& perform) {
    const auto thread = std::make_shared<std::promise<std::uint32_t>>();
    auto done = thread->get_future();
    perform([thread] {
      vantorlogger2_line(ASL_LEVEL_ERR, "a line");
      thread->set_value(mach_thread_self());
    });
    ASSERT_EQ(done.wait_for(1min), std::future_status::ready);
    const std::uint32_t number = done.get();
    EXPECT_NE(number, mach_thread_self());
    logger_.queueFor(number)->sync([] {});  // The line has been written.
    const auto lines = sink_.messagesOf(ORBServiceManager::kClassName);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0].text, testing::HasSubstr("a line"));
  }

  // The thread that asks this server.
  static std::thread::id threadOf(const SettingsWorker& worker, const std::string& server) {
    const auto thread = std::make_shared<std::promise<std::thread::id>>();
    auto id = thread->get_future();
    worker.perform(
        server, [thread](const SettingsParts&) { thread->set_value(std::this_thread::get_id()); });
    return id.get();
  }

  TemporaryFolder root_;
  std::unique_ptr<LinuxPlatform> linux_;
  std::optional<ListenerPlaces> places_;
  ProtocolTable protocols_;
  FakeCodeSignatures signatures_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  AsioSerialQueues queues_{1, AsioSerialQueues::Work::kBackground};
  Logger2State logger_{log_, queues_};
  const Logger2Binding binding_{logger_};
  const std::unique_ptr<LoopThread> thread_ = *LoopThread::create();
};

TEST_F(WorkersTest, TheExtensionWorkerHasItsThread) {
  ExtensionWorker worker(*thread_, *linux_, signatures_);
  expectThread([&](RunLoop::Callback work) { worker.perform(std::move(work)); });
  stop();
}

// A host that has been stopped leaves such a socket.
TEST_F(WorkersTest, AJobHostWithAFullBacklogIsProbedOnTheThread) {
  ExtensionWorker worker(*thread_, *linux_, signatures_);
  RunLoop& loop = *linux_->runLoop;
  const JobHostClient::Probe probe = worker.probeOfJobHost(loop);
  const auto mayConnect = [&] {
    const auto answer = std::make_shared<std::optional<bool>>();
    probe([answer, &loop](bool mayConnect) {
      *answer = mayConnect;
      loop.stop();
    });
    loop.run();
    return answer->value();
  };
  EXPECT_TRUE(mayConnect());  // There is no host.

  std::filesystem::create_directories(root_.path("run/vantor"));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = jobHostSocket(root_.path());
  ASSERT_LT(path.size(), sizeof(address.sun_path));
  path.copy(address.sun_path, path.size());
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);
  const UniqueFd listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(listening.get(), name, sizeof(address)), 0);
  ASSERT_EQ(::listen(listening.get(), 0), 0);
  std::vector<UniqueFd> backlog;
  do {
    backlog.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  } while (::connect(backlog.back().get(), name, sizeof(address)) == 0);
  EXPECT_FALSE(mayConnect());
  stop();
}

TEST_F(WorkersTest, EachSettingsServerHasAThreadWithItsClients) {
  const auto made = SettingsClientsWorker::make({*linux_, *places_, protocols_});
  ASSERT_TRUE(made) << describe(made.error());
  SettingsClientsWorker& clients = **made;
  const SettingsWorker worker = clients.worker();
  expectThread([&](RunLoop::Callback work) {
    worker.perform("common", [work = std::move(work)](const SettingsParts& parts) mutable {
      EXPECT_NE(parts.factories.find("cmxSettingsClientWithDelegate:"), nullptr);
      work();
    });
  });
  worker.perform("common", [](const SettingsParts&) {});
  EXPECT_EQ(clients.threads().size(), 2u);  // and a shared one
  worker.perform("update", [](const SettingsParts&) {});
  EXPECT_EQ(clients.threads().size(), 3u);
  for (LoopThread* thread : clients.threads()) EXPECT_TRUE(thread->stopWithin(1min));
}

TEST_F(WorkersTest, WithoutAThreadASettingsServerSharesOne) {
  const auto made = SettingsClientsWorker::make({*linux_, *places_, protocols_});
  ASSERT_TRUE(made) << describe(made.error());
  const SettingsWorker worker = (*made)->worker();
  std::thread::id primary;
  std::thread::id update;
  withInterceptedSystemCall(
      SYS_clone3, [](const InterceptedCall&) { return EAGAIN; },
      [&] {
        primary = threadOf(worker, "status");
        update = threadOf(worker, "update");
      });
  EXPECT_NE(primary, update);
  EXPECT_EQ(threadOf(worker, "unknown"), update);
  EXPECT_NE(threadOf(worker, "common"), update);
  EXPECT_EQ(threadOf(worker, "status"), primary);
  for (LoopThread* thread : (*made)->threads()) EXPECT_TRUE(thread->stopWithin(1min));
}

TEST_F(WorkersTest, ASettingsServerGetsItsThreadWhenThereIsOne) {
  const auto made = SettingsClientsWorker::make({*linux_, *places_, protocols_});
  ASSERT_TRUE(made) << describe(made.error());
  const SettingsWorker worker = (*made)->worker();
  std::thread::id primary;
  std::thread::id shared;
  withInterceptedSystemCall(
      SYS_clone3, [](const InterceptedCall&) { return EAGAIN; },
      [&] {
        primary = threadOf(worker, "status");
        shared = threadOf(worker, "update");
        EXPECT_FALSE(worker.giveThread("update"));
      });
  const SettingsWorker::OnSharedThread onShared = worker.giveThread("update");
  ASSERT_TRUE(onShared);
  const std::thread::id own = threadOf(worker, "update");
  EXPECT_NE(own, shared);
  EXPECT_NE(own, primary);
  const auto thread = std::make_shared<std::promise<std::thread::id>>();
  auto id = thread->get_future();
  onShared([thread](const SettingsParts&) { thread->set_value(std::this_thread::get_id()); });
  EXPECT_EQ(id.get(), shared);
  for (const char* server : {"update", "status", "unknown"}) {
    threadOf(worker, server);
    EXPECT_FALSE(worker.giveThread(server)) << server;
  }
  for (LoopThread* each : (*made)->threads()) EXPECT_TRUE(each->stopWithin(1min));
}

TEST_F(WorkersTest, ServersThatDoNotExistUseUpNoThread) {
  const auto made = SettingsClientsWorker::make({*linux_, *places_, protocols_});
  ASSERT_TRUE(made) << describe(made.error());
  const SettingsWorker worker = (*made)->worker();
  const std::thread::id primary = threadOf(worker, "status");
  for (int i = 0; i < 20; ++i) EXPECT_NE(threadOf(worker, "unknown" + std::to_string(i)), primary);
  EXPECT_EQ((*made)->threads().size(), 2u);
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) threadOf(worker, domain.prefix);
  EXPECT_EQ((*made)->threads().size(), SettingsClientsWorker::kMaximumThreads + 1);
  for (LoopThread* thread : (*made)->threads()) EXPECT_TRUE(thread->stopWithin(1min));
}

TEST_F(WorkersTest, TheOperatorsWorkerHasItsThread) {
  OperatorClients clients(*thread_, *linux_, *places_, protocols_, signatures_);
  expectThread(clients.worker().perform);
  stop();
}

TEST_F(WorkersTest, TheOperatorWaitsLessForTheJobHostThanOthers) {
  OperatorClients clients(*thread_, *linux_, *places_, protocols_, signatures_);
  const OperatorWorker worker = clients.worker();
  const auto waited = std::make_shared<std::promise<Duration>>();
  worker.perform([&worker, waited] {
    const Instant start = monotonicTime();
    static_cast<void>(worker.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, "com.example.a"));
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
