// Buses that break off or stand still; working ones are among the end-to-end tests.

#include <memory>
#include <string>
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

TEST_F(BusNotificationCenterTest, PostsThatWaitForABusThatNeverComesAreLogged) {
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
  runUntil([&] { return sink_.texts().size() >= 2; });
  using testing::HasSubstr;
  EXPECT_THAT(
      sink_.texts(),
      testing::ElementsAre(testing::AllOf(HasSubstr("\"a\" was not posted"), HasSubstr(path_)),
                           testing::AllOf(HasSubstr("\"b\" was not posted"), HasSubstr(path_))));
}

// A bus of which it is said what it does when somebody says Hello. It reads while the loop runs.
class StrangeBus {
 public:
  enum class AtHello { kAnswers, kAnswersAndCloses, kSaysNothing };

  StrangeBus(AsioRunLoop& loop, const std::string& address, AtHello atHello)
      : loop_(loop), atHello_(atHello) {
    dbus_threads_init_default();
    DBusErrorText error;
    server_.reset(dbus_server_listen(address.c_str(), error.get()));
    EXPECT_TRUE(server_) << error.text();
    dbus_server_set_new_connection_function(
        server_.get(),
        [](DBusServer*, DBusConnection* connection, void* self) {
          static_cast<StrangeBus*>(self)->take(connection);
        },
        this, nullptr);
    sources_ = std::move(
        DBusSources::attach(loop, server_.get(), {.dispatch = {}, .peerEnded = {}, .handled = {}})
            .value());
  }

  const std::vector<Instant>& hellos() const { return hellos_; }
  // The bytes of each signal that came.
  const std::vector<std::size_t>& signalBytes() const { return signalBytes_; }

  // What its only client has written and it has not read.
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
    std::unique_ptr<DBusSources> sources;  // Goes before the connection.
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
      if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_SIGNAL) note(message.get());
      if (!dbus_message_is_method_call(message.get(), "org.freedesktop.DBus", "Hello")) continue;
      hellos_.push_back(loop_.now());
      if (atHello_ == AtHello::kSaysNothing) continue;
      UniqueDBusMessage reply(dbus_message_new_method_return(message.get()));
      dbus_connection_send(connection, reply.get(), nullptr);
      if (atHello_ == AtHello::kAnswers) continue;
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

TEST_F(BusNotificationCenterTest, ABusThatClosesAfterItsHelloIsGivenTime) {
  StrangeBus bus(*loop_, address_, StrangeBus::AtHello::kAnswersAndCloses);
  connect();
  runUntil([&] { return bus.hellos().size() >= 2; });
  ASSERT_GE(bus.hellos().size(), 2u);
  EXPECT_GE(bus.hellos()[1] - bus.hellos()[0], 400ms);
}

TEST_F(BusNotificationCenterTest, EarlyPostsToABusThatClosesAfterItsHelloAreLogged) {
  StrangeBus bus(*loop_, address_, StrangeBus::AtHello::kAnswersAndCloses);
  connect();
  post("a");
  post("b");
  runUntil([&] { return sink_.texts().size() >= 2; });
  using testing::HasSubstr;
  EXPECT_THAT(sink_.texts(), testing::ElementsAre(HasSubstr("\"a\" was not posted"),
                                                  HasSubstr("\"b\" was not posted")));
}

TEST_F(BusNotificationCenterTest, ABusThatClosesAfterItsHelloHasNotReturned) {
  StrangeBus bus(*loop_, address_, StrangeBus::AtHello::kAnswersAndCloses);
  connect();
  int returns = 0;
  const auto observation = center_->observeReturn([&] { ++returns; });
  // The second follows one that was lost, and has ended when the third comes.
  runUntil([&] { return bus.hellos().size() >= 3; });
  EXPECT_EQ(returns, 0);
}

// As many messages of one size as the limit holds, for sizes around one that divides it.
class UnsentNotificationsTest : public BusNotificationCenterTest {
 protected:
  static constexpr std::size_t kSize = kMaxUnsentNotificationBytes / 16;

  void post(std::size_t textBytes) {
    center_->postNotificationName("a", std::nullopt,
                                  Dictionary{{"key", std::string(textBytes, 'x')}},
                                  NSNotificationPosting::kThisSession);
  }
  // How many are taken before one is refused, for this reason.
  std::size_t postUntilRefused(std::size_t bytes, const std::string& reason) {
    std::size_t taken = 0;
    const std::size_t before = sink_.texts().size();
    while (post(bytes - frame_), sink_.texts().size() == before) ++taken;
    EXPECT_THAT(sink_.texts().back(), testing::HasSubstr(reason));
    return taken;
  }
  // Learns what a message takes beside its text, from one that arrives.
  void startWith(StrangeBus& bus) {
    connect();
    post(1000);
    runUntil([&] { return bus.signalBytes().size() == 1; });
    frame_ = bus.signalBytes().front() - 1000;
  }

  std::size_t frame_ = 0;
};

TEST_F(UnsentNotificationsTest, SoManyBytesMayWaitForABusThatDoesNotRead) {
  for (const std::size_t size : {kSize - 1, kSize, kSize + 1}) {
    StrangeBus bus(*loop_, address_, StrangeBus::AtHello::kAnswers);
    startWith(bus);
    const std::size_t taken = postUntilRefused(size, "does not read");
    // What is not written to its end waits as a whole.
    EXPECT_EQ(taken - bus.unreadBytes() / size, kMaxUnsentNotificationBytes / size) << size;
    runUntil([&] { return bus.signalBytes().size() == 1 + taken; });
    EXPECT_EQ(bus.signalBytes().back(), size);
    center_.reset();
  }
}

TEST_F(UnsentNotificationsTest, AnObserverAddedAtTheLimitDoesNotLiftIt) {
  StrangeBus bus(*loop_, address_, StrangeBus::AtHello::kAnswers);
  startWith(bus);
  const std::size_t smallest = frame_ + 1;
  postUntilRefused(smallest, "does not read");
  // Asking for its signals, and no longer asking, is more than one of these posts.
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

TEST_F(UnsentNotificationsTest, SoManyBytesMayWaitForABusThatDoesNotAnswer) {
  {
    StrangeBus bus(*loop_, address_, StrangeBus::AtHello::kAnswers);
    startWith(bus);
    center_.reset();
  }
  for (const std::size_t size : {kSize - 1, kSize, kSize + 1}) {
    StrangeBus bus(*loop_, address_, StrangeBus::AtHello::kSaysNothing);
    connect();
    runUntil([&] { return bus.hellos().size() == 1; });
    EXPECT_EQ(postUntilRefused(size, "does not answer"), kMaxUnsentNotificationBytes / size);
    center_.reset();
  }
}

}  // namespace
}  // namespace platform
