#include "Platform/Linux/XPC/LinuxXPC.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <tuple>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/XPC/XPCTurns_contract.h"
#include "Platform/XPC/XPC_contract.h"

namespace platform {
namespace {

// Two XPC instances in this process. They can't tell this from two processes.
class LinuxXPCHarness final : public XPCHarness {
 public:
  LinuxXPCHarness() {
    std::filesystem::create_directories(folder_.path("run/vantor/mach"));
    here_ = std::move(*LinuxXPC::make(
        log_, ListenerPlaces(defaultPlatformConfiguration(folder_.path())), std::nullopt));
    there_ = std::move(*LinuxXPC::make(
        log_, ListenerPlaces(defaultPlatformConfiguration(folder_.path())), std::nullopt));
  }

  XPC& here() override { return here_->xpc(); }
  XPC& there() override { return there_->xpc(); }
  void endThere() override { there_.reset(); }
  void end() override {
    there_.reset();
    here_.reset();
  }
  PeerCredentials self() override { return {::getpid(), ::geteuid(), ::getegid()}; }

  void await(const std::function<bool()>& done) override {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(60), [&] { return done(); });
  }
  void changed() override {
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
  }

 private:
  TemporaryFolder folder_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::unique_ptr<LinuxXPC> here_;
  std::unique_ptr<LinuxXPC> there_;
};

std::unique_ptr<XPCHarness> makeXPCHarness() { return std::make_unique<LinuxXPCHarness>(); }

INSTANTIATE_TEST_SUITE_P(DBus, XPCContract, testing::Values(&makeXPCHarness));

TEST_P(XPCContract, MoreLongRequestsThanThreadsLeaveAnotherOneServed) {
  delegate_->object().turnsToLinger = kForEver;
  start();
  std::vector<std::shared_ptr<NSXPCConnection>> long_;
  for (std::size_t i = 0; i < 2 * LinuxXPC::kThreadsPerListener; ++i) {
    long_.push_back(connect());
    send(*long_.back(), "lingerWithReply:");
  }
  call(*client_, "echo:withReply:", {Value(1)});
  EXPECT_EQ(journal_.count("lingered"), 0u);
  client_->sendMessage("note:", {Value("end")}, nullptr, nullptr);
  journal_.await("lingered", long_.size());
}

// Only here: if queues and loop share a thread, an endless request lets no other message arrive.
TEST_P(XPCContract, AnObjectThatServesAtOnceMayTakeLong) {
  delegate_->servesAtOnce = true;
  delegate_->object().turnsToLinger = kForEver;
  start();
  const auto other = connect();
  call(*other, "echo:withReply:", {Value(1)});
  delegate_->object().whileLingering = [&] {
    other->sendMessage("note:", {Value("meanwhile")}, nullptr, nullptr);  // This ends it.
  };
  send(*client_, "lingerWithReply:");
  client_->sendMessage("note:", {Value("behind")}, nullptr, nullptr);
  journal_.await("note behind");
  journal_.await("note meanwhile");
  std::vector<std::string> entries = journal_.entries();
  std::erase_if(entries, [](const std::string& entry) {
    return entry != "lingered" && entry != "note behind";
  });
  EXPECT_EQ(entries, (std::vector<std::string>{"lingered", "note behind"}));
}

TEST_P(XPCContract, MessagesBehindALongRequestAreLimited) {
  delegate_->object().turnsToLinger = kForEver;
  start();
  const auto other = connect();
  delegate_->object().whileLingering = [this] { journal_.note("begun"); };
  send(*client_, "lingerWithReply:");
  journal_.await("begun");
  const auto sendNote = [&] {
    client_->sendMessage("note:", {Value("behind")}, nullptr, nullptr);
    call(*other, "echo:withReply:", {Value(1)});  // The earlier message has arrived by now.
  };
  for (std::size_t i = 0; i < NSXPCConnection::kMaxWaitingMessages; ++i) sendNote();
  EXPECT_EQ(journal_.count("interrupted"), 0u);
  sendNote();
  journal_.await("interrupted");
  journal_.await("caller gone");
  EXPECT_EQ(journal_.count("note behind"), 0u);
}

// Calls its listener without a pause, from before the XPC shuts down until after that has begun,
// and then holds the last reference to it.
class Busy final : public NSXPCListenerDelegate {
 public:
  bool listener(NSXPCListener& listener, const std::shared_ptr<NSXPCConnection>&) override {
    begun.set_value();
    while (!isEnding) std::ignore = listener.endpoint();
    for (int i = 0; i < kTurns; ++i) std::ignore = listener.endpoint();
    return false;
  }

  std::promise<void> begun;
  std::atomic<bool> isEnding = false;

 private:
  static constexpr int kTurns = 1000;  // The XPC's loop stops within the first few.
};

TEST(LinuxXPCTest, ARunningRequestMayUseItsListenerAtTheEnd) {
  TemporaryFolder folder;
  FakeLogSink sink;
  SystemLog log(sink, "test");
  const auto client = std::move(*LinuxXPC::make(
      log, ListenerPlaces(defaultPlatformConfiguration(folder.path())), std::nullopt));
  auto server = std::move(*LinuxXPC::make(
      log, ListenerPlaces(defaultPlatformConfiguration(folder.path())), std::nullopt));
  const auto delegate = std::make_shared<Busy>();
  auto listener = server->xpc().makeAnonymousListener();
  listener->setDelegate(delegate);
  listener->resume();
  const auto connection = client->xpc().makeConnection(listener->endpoint());
  connection->resume();
  delegate->begun.get_future().wait();
  listener.reset();
  delegate->isEnding = true;
  server.reset();
}

// Holds its thread until it may end.
class Holding final : public NSXPCListenerDelegate {
 public:
  bool listener(NSXPCListener& /*listener*/, const std::shared_ptr<NSXPCConnection>&) override {
    begun.set_value();
    mayEnd.get_future().wait();
    return false;
  }

  std::promise<void> begun;
  std::promise<void> mayEnd;
};

TEST(LinuxXPCTest, AnEndAsideWaitsForNoRequest) {
  TemporaryFolder folder;
  FakeLogSink sink;
  SystemLog log(sink, "test");
  const auto client = std::move(*LinuxXPC::make(
      log, ListenerPlaces(defaultPlatformConfiguration(folder.path())), std::nullopt));
  auto server = std::move(*LinuxXPC::make(
      log, ListenerPlaces(defaultPlatformConfiguration(folder.path())), std::nullopt));
  const auto delegate = std::make_shared<Holding>();
  auto listener = server->xpc().makeAnonymousListener();
  listener->setDelegate(delegate);
  listener->resume();
  const auto connection = client->xpc().makeConnection(listener->endpoint());
  connection->resume();
  delegate->begun.get_future().wait();
  listener.reset();
  const std::future<void> end = LinuxXPC::endAside(std::move(server));
  EXPECT_EQ(end.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  delegate->mayEnd.set_value();
  EXPECT_EQ(end.wait_for(std::chrono::seconds(60)), std::future_status::ready);
}

TEST(LinuxXPCTest, WithoutAThreadThereIsAnError) {
  TemporaryFolder folder;
  FakeLogSink sink;
  SystemLog log(sink, "test");
  withInterceptedSystemCall(
      SYS_clone3, [](const InterceptedCall&) { return EAGAIN; },
      [&] {
        const auto made = LinuxXPC::make(
            log, ListenerPlaces(defaultPlatformConfiguration(folder.path())), std::nullopt);
        ASSERT_FALSE(made);
        EXPECT_EQ(made.error().code, ErrorCode::kExhausted);
      });
}

// It is left behind, so it outlives the test.
TEST(LinuxXPCTest, AnEndWithoutAThreadNeitherBlocksNorFails) {
  TemporaryFolder folder;
  static FakeLogSink sink;
  static SystemLog log(sink, "test");
  auto xpc = std::move(*LinuxXPC::make(
      log, ListenerPlaces(defaultPlatformConfiguration(folder.path())), std::nullopt));
  // LeakSanitizer finds nothing else that refers to it.
  [[maybe_unused]] static const LinuxXPC* const leftBehind = xpc.get();
  std::future<void> end;
  withInterceptedSystemCall(
      SYS_clone3, [](const InterceptedCall&) { return EAGAIN; },
      [&] { end = LinuxXPC::endAside(std::move(xpc)); });
  EXPECT_EQ(end.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
}

TEST(LinuxXPCTest, ALongRequestLearnsThatItsXPCHasEnded) {
  LinuxXPCHarness harness;
  XPCJournal journal(harness);
  auto delegate = std::make_shared<XPCTestDelegate>(journal);
  delegate->object().turnsToLinger = kForEver;
  delegate->object().whileLingering = [&] { journal.note("begun"); };
  auto listener = harness.there().makeListener("com.example.test");
  listener->setDelegate(delegate);
  listener->resume();
  std::vector<std::shared_ptr<NSXPCConnection>> clients;
  for (std::size_t i = 0; i <= LinuxXPC::kThreadsPerListener; ++i) {
    clients.push_back(harness.here().makeConnection("com.example.test"));
    clients.back()->setRemoteObjectInterface(&xpcTestProtocol());
    clients.back()->resume();
    clients.back()->sendMessage("lingerWithReply:", {}, nullptr, nullptr);
  }
  journal.await("begun", clients.size());
  listener.reset();
  harness.endThere();
  EXPECT_EQ(journal.count("caller gone"), clients.size());
  EXPECT_EQ(journal.count("lingered"), 0u);
  clients.clear();
  harness.end();
}

// Accepts everybody, but delays the second connection until it is released.
class Hesitating final : public NSXPCListenerDelegate {
 public:
  explicit Hesitating(XPCJournal& journal)
      : journal_(journal), object_(std::make_shared<XPCTestObject>(journal)) {}

  bool listener(NSXPCListener& /*listener*/,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(&xpcTestProtocol());
    connection->setExportedObject(object_);
    connection->setServesAtOnce();
    connection->resume();
    journal_.note("resumed");
    if (++accepted_ == 2) mayGoOn.get_future().wait();
    return true;
  }

  std::promise<void> mayGoOn;

 private:
  XPCJournal& journal_;
  const std::shared_ptr<XPCTestObject> object_;
  int accepted_ = 0;
};

// A message for a busy queue waits behind it without blocking the thread that reads for all.
TEST(LinuxXPCTest, ABusyQueueDoesNotBlockOtherConnections) {
  LinuxXPCHarness harness;
  XPCJournal journal(harness);
  auto delegate = std::make_shared<Hesitating>(journal);
  auto listener = harness.there().makeListener("com.example.test");
  listener->setDelegate(delegate);
  listener->resume();
  const auto connect = [&] {
    auto connection = harness.here().makeConnection("com.example.test");
    connection->setRemoteObjectInterface(&xpcTestProtocol());
    connection->resume();
    return connection;
  };
  const auto ask = [&](NSXPCConnection& connection, const char* name) {
    connection.sendMessage(
        "echo:withReply:", {Value(1)}, [&journal, name](const Array&) { journal.note(name); },
        nullptr);
  };
  auto other = connect();
  ask(*other, "other");
  journal.await("other");
  auto busy = connect();
  journal.await("resumed", 2);
  for (std::size_t i = 1; i <= 10; ++i) {
    ask(*busy, "busy");
    ask(*other, "other");
    journal.await("other", 1 + i);
  }
  EXPECT_EQ(journal.count("busy"), 0u);
  delegate->mayGoOn.set_value();
  journal.await("busy", 10);
  other.reset();
  busy.reset();
  listener.reset();
  harness.end();
}

}  // namespace
}  // namespace platform
