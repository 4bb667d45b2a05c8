#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Peers/PeerTransport.h"

namespace platform {

using namespace std::chrono_literals;

// This process, whose loop the test runs, and another one, which runs by itself.
class PeerTransportHarness {
 public:
  virtual ~PeerTransportHarness() = default;

  virtual RunLoop& loop() = 0;
  virtual PeerTransport& here() = 0;
  // A path for a name in an existing folder.
  virtual std::string path(std::string_view name) = 0;

  // Runs an action in the other process and returns when it is done.
  using Action = std::function<void(PeerTransport&)>;
  virtual void there(const Action& action) = 0;
  // A connection of another user, who is neither root nor our own, to the other process. Null if
  // this test can't have one.
  virtual std::unique_ptr<PeerConnection> connectAsStranger(const std::string& path) = 0;
  // Makes the other process stop reading from its sockets, and resume.
  virtual void hang() = 0;
  virtual void goOn() = 0;

  // Runs this loop until `done` holds. It is checked after each changed(), which any process may
  // call.
  virtual void runUntil(const std::function<bool()>& done) = 0;
  virtual void changed() = 0;
};

// The events in both processes.
class PeerJournal {
 public:
  explicit PeerJournal(PeerTransportHarness& harness) : harness_(harness) {}

  void note(std::string text) {
    {
      const std::lock_guard lock(mutex_);
      entries_.push_back(std::move(text));
    }
    harness_.changed();
  }
  std::vector<std::string> entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
  }
  std::size_t count(std::string_view text) const {
    const auto all = entries();
    return static_cast<std::size_t>(std::ranges::count(all, text));
  }

 private:
  PeerTransportHarness& harness_;
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// The other process listens on "server" and keeps its newest connection, which answers:
//   echo:          its argument
//   raise:         an exception with the argument as its user info
//   keep, keep:    nothing, and keeps the right to answer
//   callBack:      what the caller answers to "called:" with the argument
//   relay:         nothing; calls back without waiting, and notes the answer
//   closeHere      nothing; closes the connection from inside the handler
//   anything else, if one-way: is noted with its first argument, if any
class PeerTransportBed {
 protected:
  using Log = std::vector<std::string>;

  // The other process's objects, used only by it.
  struct Server {
    std::unique_ptr<PeerListener> listener;
    std::vector<std::unique_ptr<PeerConnection>> connections;
    std::vector<std::unique_ptr<PeerReply>> kept;
    bool admits = true;
  };

  explicit PeerTransportBed(std::unique_ptr<PeerTransportHarness> harness)
      : harness_(std::move(harness)), journal_(*harness_) {}
  PeerTransportBed(const PeerTransportBed&) = delete;
  PeerTransportBed& operator=(const PeerTransportBed&) = delete;

  ~PeerTransportBed() {
    harness_->goOn();
    client_.reset();
    harness_->there([this](PeerTransport&) {
      server_.kept.clear();
      server_.connections.clear();
      server_.listener.reset();
    });
  }

  void listen(PeerListenerOptions options = {}) {
    harness_->there([&](PeerTransport& there) {
      auto listener = there.listen(
          path(), options,
          [this](std::unique_ptr<PeerConnection> newcomer) { serve(std::move(newcomer)); });
      ASSERT_TRUE(listener) << describe(listener.error());
      server_.listener = std::move(*listener);
    });
  }

  std::unique_ptr<PeerConnection> connect(PeerConnectOptions options = {.timeout = 60s}) {
    auto connection = harness_->here().connect(path(), options);
    if (!connection) ADD_FAILURE() << describe(connection.error().error);
    return connection ? std::move(*connection) : nullptr;
  }

  void start(PeerListenerOptions options = {}) {
    listen(options);
    client_ = connect();
    ASSERT_TRUE(client_);
  }

  // With a short admission time, a slow machine may need several attempts.
  void startWithAdmissionTime(Duration admissionTime) {
    listen({.admissionTime = admissionTime});
    for (int attempt = 0; attempt < 1000 && !client_; ++attempt) {
      begun_ = harness_->loop().now();
      auto connection = harness_->here().connect(path(), {.timeout = 60s});
      if (connection) client_ = std::move(*connection);
    }
    ASSERT_TRUE(client_);
  }

  void noteDeath(PeerConnection& connection, std::string text = "death") {
    connection.setHandlers(
        {.message = {}, .death = [this, text](const Error&) { journal_.note(text); }});
  }

  MessageResult call(std::string_view selector, const Array& arguments = {},
                     Duration timeout = 60s) {
    return client_->call(selector, arguments, timeout);
  }

  void runUntilNoted(std::string_view text, std::size_t times = 1) {
    harness_->runUntil([&] { return journal_.count(text) >= times; });
  }
  // Waits for everything that either process has started.
  void settle() {
    EXPECT_TRUE(call("echo:", {Value("settle")}).has_value());
    harness_->loop().post([this] { journal_.note("settled"); });
    runUntilNoted("settled", ++settled_);
  }

  std::string path() { return harness_->path("server"); }

  std::unique_ptr<PeerTransportHarness> harness_;
  PeerJournal journal_;
  Server server_;
  std::unique_ptr<PeerConnection> client_;
  Instant begun_;  // when startWithAdmissionTime() began to connect

 private:
  void serve(std::unique_ptr<PeerConnection> newcomer) {
    PeerConnection* connection = newcomer.get();
    server_.connections.push_back(std::move(newcomer));
    if (server_.admits) connection->admit();
    connection->setHandlers(
        {.message = [this,
                     connection](PeerMessage message) { handle(*connection, std::move(message)); },
         .death =
             [this](const Error& why) {
               journal_.note("client died");
               if (why.code != ErrorCode::kNotFound) journal_.note(describe(why));
             }});
    journal_.note("connected");
  }

  void handle(PeerConnection& connection, PeerMessage message) {
    const Value argument = message.arguments.empty() ? Value() : message.arguments.front();
    if (message.selector == "closeHere") return close(connection);
    if (message.selector == "relay:") {
      connection.callAsync("called:", {argument}, 60s, [this](const MessageResult& result) {
        journal_.note("relayed " + (result ? *result->string() : result.error().name));
      });
    }
    if (message.selector == "callBack:") {
      return answer(message, connection.call("called:", {argument}, 60s));
    }
    if (!message.reply) {
      const bool isText = argument.string() != nullptr;
      return journal_.note(message.selector + (isText ? *argument.string() : ""));
    }
    if (message.selector == "keep") {
      server_.kept.push_back(std::move(message.reply));
      return journal_.note("kept");
    }
    if (message.selector == "raise:") {
      return answer(message,
                    std::unexpected(NSException{"SomeException", "Some reason", argument}));
    }
    answer(message, argument);
  }

  void answer(PeerMessage& message, const MessageResult& result) {
    if (const auto answered = message.reply->answer(result); !answered) {
      journal_.note("unanswered: " + describe(answered.error()));
    }
  }

  void close(PeerConnection& connection) {
    std::erase_if(server_.connections, [&](const auto& held) { return held.get() == &connection; });
    journal_.note("closed");
  }

  std::size_t settled_ = 0;
};

class PeerTransportContract
    : public testing::TestWithParam<std::unique_ptr<PeerTransportHarness> (*)()>,
      protected PeerTransportBed {
 protected:
  PeerTransportContract() : PeerTransportBed(GetParam()()) {}
};

}  // namespace platform
