// Buses that break off; working ones are among the end-to-end tests.

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/Linux/DBusHandles.h"
#include "Platform/Linux/DBusSources.h"
#include "Platform/Linux/NotificationBus.h"
#include "Platform/Testing/FakeLogSink.h"
#include "Platform/Testing/TemporaryFolder.h"

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

// Answers a Hello and closes.
class ShortBus {
 public:
  ShortBus(AsioRunLoop& loop, const std::string& address) : loop_(loop) {
    dbus_threads_init_default();
    DBusErrorText error;
    server_.reset(dbus_server_listen(address.c_str(), error.get()));
    EXPECT_TRUE(server_) << error.text();
    dbus_server_set_new_connection_function(
        server_.get(),
        [](DBusServer*, DBusConnection* connection, void* self) {
          static_cast<ShortBus*>(self)->take(connection);
        },
        this, nullptr);
    sources_ = std::move(
        DBusSources::attach(loop, server_.get(), {.dispatch = {}, .peerEnded = {}, .handled = {}})
            .value());
  }

  const std::vector<Instant>& hellos() const { return hellos_; }

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
      if (!dbus_message_is_method_call(message.get(), "org.freedesktop.DBus", "Hello")) continue;
      hellos_.push_back(loop_.now());
      UniqueDBusMessage reply(dbus_message_new_method_return(message.get()));
      dbus_connection_send(connection, reply.get(), nullptr);
      dbus_connection_flush(connection);
      return dbus_connection_close(connection);
    }
  }

  AsioRunLoop& loop_;
  UniqueDBusServer server_;
  std::unique_ptr<DBusSources> sources_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<Instant> hellos_;
};

TEST_F(BusNotificationCenterTest, ABusThatClosesAfterItsHelloIsGivenTime) {
  ShortBus bus(*loop_, address_);
  connect();
  runUntil([&] { return bus.hellos().size() >= 2; });
  ASSERT_GE(bus.hellos().size(), 2u);
  EXPECT_GE(bus.hellos()[1] - bus.hellos()[0], 400ms);
}

}  // namespace
}  // namespace platform
