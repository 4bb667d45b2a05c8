#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/XPC/XPC.h"

namespace platform {

// This process and another one, whether real or fake.
class XPCHarness {
 public:
  virtual ~XPCHarness() = default;

  virtual XPC& here() = 0;
  virtual XPC& there() = 0;
  // Ends the other process with everything in it.
  virtual void endThere() = 0;
  // Ends both.
  virtual void end() = 0;
  // This process's credentials for the other one.
  virtual PeerCredentials self() = 0;

  // Blocks until `done` holds. It is checked after each changed(), which any thread may call.
  virtual void await(const std::function<bool()>& done) = 0;
  virtual void changed() = 0;
};

using XPCHarnessFactory = std::unique_ptr<XPCHarness> (*)();

// The events of both processes.
class XPCJournal {
 public:
  explicit XPCJournal(XPCHarness& harness) : harness_(harness) {}

  void note(std::string text) {
    {
      const std::lock_guard lock(mutex_);
      entries_.push_back(std::move(text));
    }
    harness_.changed();
  }
  std::size_t count(std::string_view text) const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::ranges::count(entries_, text));
  }
  void await(const std::string& text, std::size_t times = 1) {
    harness_.await([&] { return count(text) >= times; });
    EXPECT_GE(count(text), times) << text;
  }
  std::vector<std::string> entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
  }

 private:
  XPCHarness& harness_;
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// The interface that the other process exports:
//   echo:withReply:   its argument
//   pairWithReply:    two values, of which the second is nil
//   keepWithReply:    nothing, and keeps the right to reply
//   dropWithReply:    nothing, and gives the right back
//   lingerWithReply:  nothing, after it has given others as many turns as turnsToLinger says; it
//                     notes if its caller ends meanwhile
//   note:             nothing; notes itself, and lets lingering calls reply
inline const Protocol& xpcTestProtocol() {
  using enum MethodDescription::Kind;
  static const Protocol protocol("TestProtocol", {{"echo:withReply:", kTwoWay},
                                                  {"pairWithReply:", kTwoWay},
                                                  {"keepWithReply:", kTwoWay},
                                                  {"dropWithReply:", kTwoWay},
                                                  {"lingerWithReply:", kTwoWay},
                                                  {"note:", kOneWay}});
  return protocol;
}

class XPCTestObject final : public NSXPCExportedObject {
 public:
  explicit XPCTestObject(XPCJournal& journal) : journal_(journal) {}
  ~XPCTestObject() override { journal_.note("object gone"); }

  void receiveMessage(std::string_view selector, const Array& arguments, XPCReply reply) override {
    if (selector == "echo:withReply:") return reply({arguments.at(0)});
    if (selector == "pairWithReply:") return reply({Value(true), Value()});
    if (selector == "note:") {
      EXPECT_FALSE(reply);
      turnsToLinger = 0;
      return journal_.note("note " + *arguments.at(0).string());
    }
    if (selector == "lingerWithReply:") {
      if (whileLingering) whileLingering();
      return linger(std::move(reply));
    }
    if (selector == "dropWithReply:") {
      reply = nullptr;
      return journal_.note("dropped");
    }
    const std::lock_guard lock(mutex_);
    kept_.push_back(std::move(reply));
    journal_.note("kept");
  }

  std::atomic<int> turnsToLinger = 0;
  std::function<void()> whileLingering;

  void dropKept() {
    const std::lock_guard lock(mutex_);
    kept_.clear();
  }
  XPCReply takeKept() {
    const std::lock_guard lock(mutex_);
    XPCReply reply = std::move(kept_.front());
    kept_.erase(kept_.begin());
    return reply;
  }

 private:
  void linger(XPCReply reply) {
    NSXPCConnection* const connection = NSXPCConnection::currentConnection();
    if (connection->isInvalid()) return journal_.note("caller gone");
    if (turnsToLinger-- <= 0) {
      journal_.note("lingered");
      return reply({Value(true)});
    }
    connection->continueServing(
        [this, reply = std::move(reply)]() mutable { linger(std::move(reply)); });
  }

  XPCJournal& journal_;
  std::mutex mutex_;
  std::vector<XPCReply> kept_;
};

class XPCTestDelegate final : public NSXPCListenerDelegate {
 public:
  explicit XPCTestDelegate(XPCJournal& journal)
      : journal_(journal), object_(std::make_shared<XPCTestObject>(journal)) {}

  bool listener(NSXPCListener& /*listener*/,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    peers.push_back({connection->processIdentifier(), connection->effectiveUserIdentifier(), 0});
    if (refuses) {
      journal_.note("refused");
      return false;
    }
    if (whileDeciding) whileDeciding();
    connection->setExportedInterface(&xpcTestProtocol());
    connection->setExportedObject(object_);
    connection->setInvalidationHandler([this] { journal_.note("server side invalid"); });
    if (servesAtOnce) connection->setServesAtOnce();
    accepted.push_back(connection);
    connection->resume();
    journal_.note("accepted");
    return true;
  }

  XPCTestObject& object() { return *object_; }

  // Read it after "accepted" or "refused" has been noted.
  std::vector<PeerCredentials> peers;
  std::vector<std::weak_ptr<NSXPCConnection>> accepted;
  bool refuses = false;
  bool servesAtOnce = false;
  std::function<void()> whileDeciding;

 private:
  XPCJournal& journal_;
  std::shared_ptr<XPCTestObject> object_;
};

// The other process listens as the Mach service "com.example.test", and without a name.
class XPCContract : public testing::TestWithParam<XPCHarnessFactory> {
 protected:
  static constexpr char kService[] = "com.example.test";

  ~XPCContract() override {
    client_.reset();
    // Pending replies must be dropped before their XPC.
    if (delegate_) delegate_->object().dropKept();
    listener_.reset();
    anonymous_.reset();
    harness_->end();
  }

  void listen() {
    listener_ = harness_->there().makeListener(kService);
    listener_->setDelegate(delegate_);
    listener_->resume();
  }
  std::shared_ptr<const NSXPCListenerEndpoint> listenAnonymously() {
    anonymous_ = harness_->there().makeAnonymousListener();
    anonymous_->setDelegate(delegate_);
    anonymous_->resume();
    return anonymous_->endpoint();
  }

  std::shared_ptr<NSXPCConnection> prepare(std::shared_ptr<NSXPCConnection> connection) {
    connection->setRemoteObjectInterface(&xpcTestProtocol());
    connection->setInvalidationHandler([this] { journal_.note("invalid"); });
    connection->setInterruptionHandler([this] { journal_.note("interrupted"); });
    return connection;
  }
  std::shared_ptr<NSXPCConnection> connect() {
    auto connection = prepare(harness_->here().makeConnection(kService));
    connection->resume();
    return connection;
  }
  std::shared_ptr<NSXPCConnection> connect(std::shared_ptr<const NSXPCListenerEndpoint> endpoint) {
    auto connection = prepare(harness_->here().makeConnection(std::move(endpoint)));
    connection->resume();
    return connection;
  }
  void start() {
    listen();
    client_ = connect();
  }

  // Messages that arrive while the server's connection is suspended wait there, without blocking
  // others.
  void expectHeldWhileSuspended() {
    call(*client_, "echo:withReply:", {Value(1)});
    const auto serverSide = delegate_->accepted.at(0).lock();
    serverSide->suspend();
    client_->sendMessage("note:", {Value("held")}, nullptr, nullptr);
    const auto other = connect();
    call(*other, "echo:withReply:", {Value(2)});
    EXPECT_EQ(journal_.count("note held"), 0u);
    serverSide->resume();
    journal_.await("note held");
  }

  // Sends a message and notes "reply" or "error CODE".
  void send(NSXPCConnection& connection, std::string_view selector, Array arguments = {}) {
    connection.sendMessage(
        selector, std::move(arguments),
        [this](Array values) {
          {
            const std::lock_guard lock(mutex_);
            reply_ = std::move(values);
          }
          journal_.note("reply");
        },
        [this](const NSError& error) { journal_.note("error " + std::to_string(error.code)); });
  }
  Array call(NSXPCConnection& connection, std::string_view selector, Array arguments = {}) {
    const std::size_t before = journal_.count("reply");
    send(connection, selector, std::move(arguments));
    journal_.await("reply", before + 1);
    const std::lock_guard lock(mutex_);
    return reply_;
  }

  std::unique_ptr<XPCHarness> harness_ = GetParam()();
  XPCJournal journal_{*harness_};
  std::shared_ptr<XPCTestDelegate> delegate_ = std::make_shared<XPCTestDelegate>(journal_);
  std::shared_ptr<NSXPCListener> listener_;
  std::shared_ptr<NSXPCListener> anonymous_;
  std::shared_ptr<NSXPCConnection> client_;

 private:
  std::mutex mutex_;
  Array reply_;
};

}  // namespace platform
