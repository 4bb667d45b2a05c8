#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"

namespace platform {

using namespace std::chrono_literals;

// This program, whose loop the test runs, and another one, which runs by itself.
class NamedConnectionsHarness {
 public:
  virtual ~NamedConnectionsHarness() = default;

  virtual ConnectedProgram& here() = 0;
  // Runs an action in the other program and returns when it is done.
  virtual void there(const std::function<void(ConnectedProgram&)>& action) = 0;
  // The same, while this program does not read from its sockets.
  virtual void thereWhileWeHang(const std::function<void(ConnectedProgram&)>& action) = 0;
  // Runs an action in the other program while this program waits, until it returns true.
  virtual void thereWhileWeWait(std::function<bool()> action) = 0;

  // The path of the name's socket.
  virtual std::string path(std::string_view name) = 0;
};

// The events in both programs.
class ConnectionJournal {
 public:
  void note(std::string text) {
    const std::lock_guard lock(mutex_);
    entries_.push_back(std::move(text));
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
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

inline const Protocol kServerProtocol("ServerProtocol",
                                      {{"echo:"},
                                       {"nothing"},
                                       {"raise:"},
                                       {"callBack:"},
                                       {"keep:"},
                                       {"hoard:"},
                                       {"callKept:"},
                                       {"conforms:"},
                                       {"isSame:"},
                                       {"serverObject"},
                                       {"much"},
                                       {"defer:"},
                                       {"note:", MethodDescription::Kind::kOneWay}});
inline const Protocol kCallbackProtocol("CallbackProtocol",
                                        {{"called:"}, {"calledWithin:of:"}, {"raised"}});

// The root object. Its selectors name its answers; hidden: is in no protocol.
class TestServerObject final : public MessageTarget {
 public:
  explicit TestServerObject(ConnectionJournal& journal) : journal_(journal) {}

  void takeMessage(std::string_view selector, const Array& arguments, MessageReply reply) override {
    if (selector != "defer:") return reply.answer(answerOf(selector, arguments));
    deferred_.emplace_back(arguments.front(), std::move(reply));
    journal_.note("deferred");
  }

  // Answers the deferred messages, the last one first: each with its argument, "object" with the
  // server's object. Returns whether there was any.
  bool answerDeferred() {
    const bool any = !deferred_.empty();
    for (; !deferred_.empty(); deferred_.pop_back()) {
      auto& [argument, reply] = deferred_.back();
      reply.answer(argument == Value("object") ? Value(object_) : argument);
    }
    return any;
  }
  void dropDeferred() { deferred_.clear(); }

  MessageResult answerOf(std::string_view selector, const Array& arguments) {
    const Value argument = arguments.empty() ? Value() : arguments.front();
    const auto proxy = proxyIn(argument);
    if (selector == "hidden:") journal_.note("hidden");
    if (selector == "nothing") return Value();
    if (selector == "raise:")
      return std::unexpected(NSException{"SomeException", "some reason", argument});
    if (selector == "note:") journal_.note(argument.string() ? *argument.string() : "note");
    if (selector == "callBack:") return proxy->sendMessage("called:", {Value("now")});
    if (selector == "keep:") kept_ = proxy;
    if (selector == "hoard:") hoard_.push_back(proxy);
    if (selector == "callKept:") return kept_->sendMessage("called:", {argument});
    if (selector == "conforms:") return Value(proxy->conformsToProtocol("CallbackProtocol"));
    if (selector == "isSame:") return Value(proxy == kept_);
    if (selector == "serverObject") return Value(object_);
    if (selector == "much") return Value(Data(kMaxPeerUnreadBytes / 8));
    return argument.type() == Value::Type::kRemoteObject ? Value() : argument;
  }

  void setObject(std::shared_ptr<const NSProtocolChecker> object) { object_ = std::move(object); }
  const std::shared_ptr<const NSProxy>& kept() const { return kept_; }
  void forget() {
    deferred_.clear();
    kept_.reset();
    hoard_.clear();
  }

 private:
  ConnectionJournal& journal_;
  std::shared_ptr<const NSProxy> kept_;
  std::vector<std::shared_ptr<const NSProxy>> hoard_;
  std::vector<std::pair<Value, MessageReply>> deferred_;
  std::shared_ptr<const NSProtocolChecker> object_;
};

// An object that is passed to the other side.
class TestCallback final : public MessageReceiver {
 public:
  explicit TestCallback(ConnectionJournal& journal) : journal_(journal) {}

  MessageResult receiveMessage(std::string_view selector, const Array& arguments) override {
    if (selector == "raised") return std::unexpected(NSException{"CallbackException", "why", {}});
    journal_.note("called " + *arguments.front().string());
    return Value("answer");
  }

 private:
  ConnectionJournal& journal_;
};

// The other program serves the name "server" to clients that authenticate with "client".
class NamedConnectionsContract
    : public testing::TestWithParam<std::unique_ptr<NamedConnectionsHarness> (*)()> {
 protected:
  using Log = std::vector<std::string>;

  // The other program's objects, used only by it.
  struct Server {
    explicit Server(ConnectionJournal& journal) : object(journal) {}
    TokenDelegate delegate{"server", "client"};
    TestServerObject object;
    std::shared_ptr<NSConnection> connection;
    std::vector<NotificationCenter::Observation> observations;
  };

  ~NamedConnectionsContract() override {
    deaths_.clear();
    client_.reset();
    root_.reset();
    there([this](ConnectedProgram&) {
      server_.observations.clear();
      server_.object.forget();
      server_.object.setObject(nullptr);
      server_.connection.reset();
    });
  }

  ConnectedProgram& here() { return harness_->here(); }
  void there(const std::function<void(ConnectedProgram&)>& action) { harness_->there(action); }

  void vend() {
    there([this](ConnectedProgram& there) {
      server_.connection = there.connections.makeConnection();
      server_.connection->setDelegate(&server_.delegate);
      ASSERT_TRUE(server_.connection->registerName("server"));
      server_.connection->setRootObject(
          std::make_shared<NSProtocolChecker>(&server_.object, &kServerProtocol));
    });
  }

  std::shared_ptr<NSConnection> lookUp() {
    auto connection = here().connections.connectionWithRegisteredName("server");
    if (connection) {
      connection->setDelegate(&delegate_);
      connection->setReplyTimeout(60s);
      connection->setRequestTimeout(60s);
    }
    return connection;
  }

  // Connects; sets `client_` and its root proxy `root_`.
  void connect() {
    client_ = lookUp();
    ASSERT_TRUE(client_);
    auto root = client_->rootProxy();
    ASSERT_TRUE(root) << root.error().name << ": " << root.error().reason;
    root_ = *root;
    root_->setProtocolForProxy(&kServerProtocol);
  }
  void start() {
    vend();
    connect();
  }

  MessageResult send(std::string_view selector, const Array& arguments = {}) {
    return root_->sendMessage(selector, arguments);
  }
  // Sends without waiting, and notes the answer or the exception.
  void sendLater(std::string_view selector, const Array& arguments = {}) {
    root_->sendMessageAsync(selector, arguments, MessageReply([this](const MessageResult& result) {
                              if (!result) return journal_.note(result.error().name);
                              journal_.note(result->string() ? *result->string() : "answered");
                            }));
  }
  std::string exceptionOf(const MessageResult& result) {
    return result ? "no exception" : result.error().name;
  }

  // Notes the deaths of this program's connections as "death".
  void noteDeaths() {
    deaths_.push_back(here().center.addObserver(
        kNSConnectionDidDieNotification, nullptr, [this](const Notification& notification) {
          journal_.note(notification.object == client_.get() ? "death" : "another death");
        }));
  }

  // Runs this loop until `done` holds.
  void runUntil(const std::function<bool()>& done) {
    if (done()) return;
    const auto look = here().loop.startTimer(1ms, RunLoop::Repeat::kEvery, [&] {
      if (done()) here().loop.stop();
    });
    const auto deadline = here().loop.startTimer(60s, RunLoop::Repeat::kOnce, [&] {
      ADD_FAILURE() << "it did not happen";
      here().loop.stop();
    });
    here().loop.run();
  }
  void runUntilNoted(std::string_view text, std::size_t times = 1) {
    runUntil([&] { return journal_.count(text) >= times; });
  }

  // The number of the server's child connections.
  std::size_t children() {
    std::size_t count = 0;
    there([&](ConnectedProgram&) { count = server_.connection->childConnections().size(); });
    return count;
  }
  std::size_t linesThere(std::string_view part) {
    std::size_t count = 0;
    there([&](ConnectedProgram& there) { count = there.sink.count(part); });
    return count;
  }

  std::unique_ptr<NamedConnectionsHarness> harness_ = GetParam()();
  ConnectionJournal journal_;
  Server server_{journal_};
  TokenDelegate delegate_{"client", "server"};
  std::vector<NotificationCenter::Observation> deaths_;
  std::shared_ptr<NSConnection> client_;
  std::shared_ptr<NSDistantObject> root_;
};

}  // namespace platform
