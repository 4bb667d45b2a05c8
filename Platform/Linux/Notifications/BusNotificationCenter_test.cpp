// Buses that disconnect or hang. The end-to-end tests use working ones.

#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/DBus/DBusSources.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class BusNotificationCenterTest : public testing::Test {
 protected:
  void connect() { center_ = makeBusNotificationCenter(*loop_, address_, log_, 20ms); }
  void post(std::string_view name) {
    center_->postNotificationName(name, std::nullopt, {}, NSNotificationPosting::kThisSession);
  }
  void runUntil(const std::function<bool()>& done) {
    const auto look = loop_->startTimer(1ms, RunLoop::Repeat::kEvery, [&] {
      if (done()) loop_->stop();
    });
    const auto late = loop_->startTimer(60s, RunLoop::Repeat::kOnce, [&] { loop_->stop(); });
    loop_->run();
    EXPECT_TRUE(done());
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_.path("bus");
  const std::string address_ = "unix:path=" + path_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(AsioRunLoop::create().value());
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  std::unique_ptr<DistributedNotificationCenter> center_;
};

TEST_F(BusNotificationCenterTest, PostsThatNoBusTookAreLoggedAtTheEnd) {
  UniqueFd listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  path_.copy(name.sun_path, sizeof(name.sun_path) - 1);
  ASSERT_EQ(::bind(listening.get(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)), 0);
  ASSERT_EQ(::listen(listening.get(), 8), 0);
  connect();
  post("a");
  post("b");
  EXPECT_THAT(sink_.texts(), testing::IsEmpty());
  listening.reset();
  center_.reset();
  using testing::HasSubstr;
  EXPECT_THAT(
      sink_.texts(),
      testing::ElementsAre(testing::AllOf(HasSubstr("\"a\" was not posted"), HasSubstr(path_)),
                           testing::AllOf(HasSubstr("\"b\" was not posted"), HasSubstr(path_))));
}

// A bus with a scripted reaction to Hello. It reads while the loop runs.
class ScriptedBus {
 public:
  enum class AtHello { kAnswers, kAnswersAndCloses, kClosesFirstConnection, kSaysNothing };

  ScriptedBus(AsioRunLoop& loop, const std::string& address, AtHello atHello)
      : loop_(loop), atHello_(atHello) {
    dbus_threads_init_default();
    DBusErrorText error;
    server_.reset(dbus_server_listen(address.c_str(), error.get()));
    EXPECT_TRUE(server_) << error.text();
    dbus_server_set_new_connection_function(
        server_.get(),
        [](DBusServer*, DBusConnection* connection, void* self) {
          static_cast<ScriptedBus*>(self)->take(connection);
        },
        this, nullptr);
    sources_ = std::move(
        DBusSources::attach(loop, server_.get(), {.dispatch = {}, .peerEnded = {}, .handled = {}})
            .value());
  }

  const std::vector<Instant>& hellos() const { return hellos_; }
  // The size in bytes of each signal received.
  const std::vector<std::size_t>& signalBytes() const { return signalBytes_; }

  // The bytes that its only client has written and that it has not read.
  std::size_t unreadBytes() const {
    int socket = -1;
    int bytes = 0;
    EXPECT_EQ(clients_.size(), 1u);
    EXPECT_TRUE(dbus_connection_get_socket(clients_.front()->connection.get(), &socket));
    EXPECT_EQ(::ioctl(socket, FIONREAD, &bytes), 0);
    return static_cast<std::size_t>(bytes);
  }

 private:
  struct Client {
    UniqueDBusConnection connection;
    std::unique_ptr<DBusSources> sources;  // Destroyed before the connection.
  };

  void take(DBusConnection* connection) {
    auto client = std::make_unique<Client>();
    client->connection.reset(dbus_connection_ref(connection));
    dbus_connection_set_exit_on_disconnect(connection, 0);
    client->sources =
        std::move(DBusSources::attach(loop_, connection,
                                      {.dispatch = [this, connection] { answer(connection); },
                                       .peerEnded = {},
                                       .handled = {}})
                      .value());
    clients_.push_back(std::move(client));
  }

  void answer(DBusConnection* connection) {
    while (UniqueDBusMessage message{dbus_connection_pop_message(connection)}) {
      // libdbus itself adds a signal at the end of a connection.
      const bool isOurs = !dbus_message_has_interface(message.get(), DBUS_INTERFACE_LOCAL);
      const bool isSignal = dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_SIGNAL;
      if (isSignal && isOurs) note(message.get());
      if (!dbus_message_is_method_call(message.get(), "org.freedesktop.DBus", "Hello")) continue;
      hellos_.push_back(loop_.now());
      if (atHello_ == AtHello::kSaysNothing) continue;
      if (atHello_ == AtHello::kClosesFirstConnection && hellos_.size() == 1) {
        return dbus_connection_close(connection);
      }
      UniqueDBusMessage reply(dbus_message_new_method_return(message.get()));
      dbus_connection_send(connection, reply.get(), nullptr);
      if (atHello_ != AtHello::kAnswersAndCloses) continue;
      dbus_connection_flush(connection);
      return dbus_connection_close(connection);
    }
  }

  void note(DBusMessage* message) {
    char* bytes = nullptr;
    int size = 0;
    ASSERT_TRUE(dbus_message_marshal(message, &bytes, &size));
    dbus_free(bytes);
    signalBytes_.push_back(static_cast<std::size_t>(size));
  }

  AsioRunLoop& loop_;
  const AtHello atHello_;
  UniqueDBusServer server_;
  std::unique_ptr<DBusSources> sources_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<Instant> hellos_;
  std::vector<std::size_t> signalBytes_;
};

TEST_F(BusNotificationCenterTest, ABusThatClosesAfterItsHelloIsRetriedLater) {
  ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kAnswersAndCloses);
  connect();
  runUntil([&] { return bus.hellos().size() >= 2; });
  ASSERT_GE(bus.hellos().size(), 2u);
  EXPECT_GE(bus.hellos()[1] - bus.hellos()[0], 400ms);
}

// As a bus does that has waited too long for the log-in.
TEST_F(BusNotificationCenterTest, EarlyPostsOutliveAConnectionThatTheBusCloses) {
  ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kClosesFirstConnection);
  connect();
  post("a");
  runUntil([&] { return bus.hellos().size() == 1; });
  post("b");
  runUntil([&] { return bus.signalBytes().size() == 2; });
  EXPECT_THAT(sink_.texts(), testing::IsEmpty());
}

TEST_F(BusNotificationCenterTest, EarlyPostsWaitForABusThatComesLate) {
  connect();
  post("a");
  ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kAnswers);
  runUntil([&] { return bus.signalBytes().size() == 1; });
  EXPECT_THAT(sink_.texts(), testing::IsEmpty());
}

TEST_F(BusNotificationCenterTest, PostsBetweenTwoBusesAreSentToTheNext) {
  auto bus = std::make_unique<ScriptedBus>(*loop_, address_, ScriptedBus::AtHello::kAnswers);
  connect();
  post("a");
  runUntil([&] { return bus->signalBytes().size() == 1; });
  bus.reset();
  post("b");
  runUntil([turns = 0]() mutable { return ++turns >= 2; });  // The end has been noticed.
  post("c");
  bus = std::make_unique<ScriptedBus>(*loop_, address_, ScriptedBus::AtHello::kAnswers);
  runUntil([&] { return bus->signalBytes().size() == 2; });
  EXPECT_THAT(sink_.texts(), testing::IsEmpty());
}

// The loop is busy meanwhile.
TEST_F(BusNotificationCenterTest, PostsOfOtherThreadsAreLimitedAndLoggedOnce) {
  constexpr std::size_t kPosts = 5000;
  constexpr std::size_t kTaken = 1024;
  ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kAnswers);
  connect();
  std::jthread([&] {
    for (std::size_t i = 0; i < kPosts; ++i) post(std::to_string(i));
  }).join();
  runUntil([&] { return bus.signalBytes().size() == kTaken; });
  EXPECT_THAT(sink_.texts(), testing::ElementsAre(testing::HasSubstr("\"1024\" was not posted")));
  std::jthread([&] { post("later"); }).join();
  runUntil([&] { return bus.signalBytes().size() == kTaken + 1; });
}

TEST_F(BusNotificationCenterTest, ABusThatClosesAfterItsHelloHasNotReturned) {
  ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kAnswersAndCloses);
  connect();
  int returns = 0;
  const auto observation = center_->observeReturn([&] { ++returns; });
  // The second connection follows a lost one, and has ended when the third comes.
  runUntil([&] { return bus.hellos().size() >= 3; });
  EXPECT_EQ(returns, 0);
}

// Sends as many messages of one size as the limit holds, for sizes around a divisor of the limit.
class UnsentNotificationsTest : public BusNotificationCenterTest {
 protected:
  static constexpr std::size_t kSize = kMaxUnsentNotificationBytes / 16;

  void post(std::size_t textBytes) {
    center_->postNotificationName("a", std::nullopt,
                                  Dictionary{{"key", std::string(textBytes, 'x')}},
                                  NSNotificationPosting::kThisSession);
  }
  // Counts the posts before one is refused for this reason.
  std::size_t postUntilRefused(std::size_t bytes, const std::string& reason) {
    std::size_t taken = 0;
    const std::size_t before = sink_.texts().size();
    while (post(bytes - frame_), sink_.texts().size() == before) ++taken;
    EXPECT_THAT(sink_.texts().back(), testing::HasSubstr(reason));
    return taken;
  }
  // Measures the overhead of a message by one that arrives.
  void startWith(ScriptedBus& bus) {
    connect();
    post(1000);
    runUntil([&] { return bus.signalBytes().size() == 1; });
    frame_ = bus.signalBytes().front() - 1000;
  }

  std::size_t frame_ = 0;
};

TEST_F(UnsentNotificationsTest, BytesForABusThatDoesNotReadAreLimited) {
  for (const std::size_t size : {kSize - 1, kSize, kSize + 1}) {
    ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kAnswers);
    startWith(bus);
    const std::size_t taken = postUntilRefused(size, "does not read");
    // A message counts as a whole until it is completely written.
    EXPECT_EQ(taken - bus.unreadBytes() / size, kMaxUnsentNotificationBytes / size) << size;
    runUntil([&] { return bus.signalBytes().size() == 1 + taken; });
    EXPECT_EQ(bus.signalBytes().back(), size);
    center_.reset();
  }
}

TEST_F(UnsentNotificationsTest, AnObserverAddedAtTheLimitDoesNotRaiseIt) {
  ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kAnswers);
  startWith(bus);
  const std::size_t smallest = frame_ + 1;
  postUntilRefused(smallest, "does not read");
  // The requests to add and remove its rule are larger than one of these posts.
  std::ignore = center_->addObserver(
      "b", std::nullopt, [](const DistributedNotification&) {},
      NSNotificationSuspensionBehavior::kDeliverImmediately);
  for (const std::size_t size : {smallest, kMaxNotificationBytes}) {
    const std::size_t before = sink_.texts().size();
    post(size - frame_);
    ASSERT_EQ(sink_.texts().size(), before + 1) << size;
    EXPECT_THAT(sink_.texts().back(), testing::HasSubstr("does not read"));
  }
}

TEST_F(UnsentNotificationsTest, BytesForABusThatDoesNotAnswerAreLimited) {
  {
    ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kAnswers);
    startWith(bus);
    center_.reset();
  }
  for (const std::size_t size : {kSize - 1, kSize, kSize + 1}) {
    ScriptedBus bus(*loop_, address_, ScriptedBus::AtHello::kSaysNothing);
    connect();
    runUntil([&] { return bus.hellos().size() == 1; });
    EXPECT_EQ(postUntilRefused(size, "does not answer"), kMaxUnsentNotificationBytes / size);
    center_.reset();
  }
}

}  // namespace
}  // namespace platform
