// The users who may connect to the private bus, whatever the mode of its socket is.

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Linux/NamedConnections/BusClients.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/NotificationBus_fixture.h"

namespace platform {
namespace {

class NotificationBusClients : public testing::Test {
 protected:
  static constexpr char kMember[] = "nobody";  // its group is "nogroup"
  static constexpr char kStranger[] = "daemon";

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start programs as other users";
  }

  static std::string clientsText(const char* group, std::vector<std::string> openListeners = {}) {
    PlatformConfiguration configuration;
    if (group) configuration.group = group;
    configuration.openListeners = std::move(openListeners);
    return busClientsText(configuration, ::geteuid());
  }

  // Whether a bus answers a program of the user. The command runs before it, with mounts of its
  // own.
  static bool isServed(const std::string& address, const std::string& user,
                       const std::string& command = "true") {
    const std::string program =
        command + " && exec /usr/bin/setpriv --reuid=" + user + " --regid=$(/usr/bin/id -g " +
        user + ") --clear-groups /usr/bin/dbus-send \"$0\"" +
        " --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.AddMatch"
        " \"string:type='signal'\"";
    ChildProgram sender(
        {"/usr/bin/unshare", "--mount", "/bin/sh", "-c", program, "--bus=" + address}, {});
    return sender.waitForExit() == ExitStatus{};
  }
  static std::string configuration() { return contentOfFile(NOTIFICATION_BUS_CONFIGURATION); }
};

TEST_F(NotificationBusClients, OnlyRootAndTheGroupAreServed) {
  const TestBus bus(configuration(), clientsText("nogroup"));
  EXPECT_TRUE(isServed(bus.address(), "root"));
  EXPECT_TRUE(isServed(bus.address(), kMember));
  EXPECT_FALSE(isServed(bus.address(), kStranger));
}

TEST_F(NotificationBusClients, WithoutAGroupOnlyRootIsServed) {
  const TestBus bus(configuration(), clientsText(nullptr));
  EXPECT_TRUE(isServed(bus.address(), "root"));
  EXPECT_FALSE(isServed(bus.address(), kMember));
}

TEST_F(NotificationBusClients, EverybodyIsServedByAnOpenBus) {
  const TestBus bus(configuration(), clientsText(nullptr, {"com.vantor.notificationbus"}));
  EXPECT_TRUE(isServed(bus.address(), kMember));
  EXPECT_TRUE(isServed(bus.address(), kStranger));
}

// The socket's folder is closed to others, and the socket is mounted in another one.
TEST_F(NotificationBusClients, AMountedSocketAdmitsNobodyElse) {
  const TestBus bus(configuration(), clientsText("nogroup"));
  const std::string socket = bus.address().substr(bus.address().find('=') + 1);
  const TemporaryFolder elsewhere;
  const std::string mounted = elsewhere.write("bus", "");
  namespace fs = std::filesystem;
  fs::permissions(elsewhere.path(), fs::perms(0711));
  fs::permissions(fs::path(socket).parent_path(), fs::perms(0700));
  EXPECT_FALSE(isServed(bus.address(), kMember));
  const std::string mount = "/usr/bin/mount --bind '" + socket + "' '" + mounted + "'";
  EXPECT_TRUE(isServed("unix:path=" + mounted, kMember, mount));
  EXPECT_FALSE(isServed("unix:path=" + mounted, kStranger, mount));
}

}  // namespace
}  // namespace platform
