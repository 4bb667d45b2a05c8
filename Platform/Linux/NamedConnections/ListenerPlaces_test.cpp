#include "Platform/Linux/NamedConnections/ListenerPlaces.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

constexpr char kSettings[] = "com.vantor.CommonPreferences";
constexpr char kRegistryName[] = "com.vantor.common.servicemanager";

class ListenerPlacesTest : public testing::Test {
 protected:
  ListenerPlacesTest() {
    configuration_.root = folder_.path();
    std::filesystem::create_directories(folder_.path("run/vantor"));
  }
  ListenerPlaces places() const { return ListenerPlaces(configuration_); }

  const TemporaryFolder folder_;
  PlatformConfiguration configuration_;
};

TEST_F(ListenerPlacesTest, WithoutAGroupRootAndTheOwnUserMayConnect) {
  const ListenerPlace place = places().connection(kSettings);
  EXPECT_EQ(place.path, folder_.path(std::string("run/vantor/connections/") + kSettings));
  EXPECT_EQ(place.clients.socketMode(), 0600u);
  EXPECT_TRUE(place.clients.admitsUser(0, 1000));
  EXPECT_TRUE(place.clients.admitsUser(1000, 1000));
  EXPECT_FALSE(place.clients.admitsUser(1001, 1000));
}

TEST_F(ListenerPlacesTest, TheGroupMayReachEachListener) {
  configuration_.group = "daemon";
  const auto group = places().connection(kSettings).clients.group;
  ASSERT_TRUE(group);
  EXPECT_EQ(places().machService(kRegistryName).clients.group, group);
  EXPECT_EQ(places().endpointClients().group, group);
  EXPECT_FALSE(places().connection(kSettings).servers.group);
}

TEST_F(ListenerPlacesTest, AMissingGroupHasNoRights) {
  configuration_.group = "no-such-group-here";
  EXPECT_EQ(places().connection(kSettings).clients.socketMode(), 0600u);
}

TEST_F(ListenerPlacesTest, AnOpenListenerIsForEverybody) {
  configuration_.openListeners = {kRegistryName};
  EXPECT_TRUE(places().machService(kRegistryName).clients.everybody);
  EXPECT_FALSE(places().connection(kSettings).clients.everybody);
  // An endpoint is for the users who can look it up.
  EXPECT_TRUE(places().endpointClients().everybody);
  configuration_.openListeners = {kSettings};
  EXPECT_TRUE(places().connection(kSettings).clients.everybody);
  EXPECT_FALSE(places().endpointClients().everybody);
}

TEST_F(ListenerPlacesTest, OnlyRootAndTheJobHostsUserAreServers) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
  ASSERT_EQ(::chown(folder_.path("run/vantor").c_str(), 1000, 1000), 0);
  const PeerAudience servers = places().connection(kSettings).servers;
  EXPECT_TRUE(servers.admitsUser(1000, 0));
  EXPECT_FALSE(servers.admitsUser(1001, 0));
  EXPECT_TRUE(places().machService(kRegistryName).servers.admitsUser(1000, 0));
}

TEST_F(ListenerPlacesTest, AConfiguredOwnerHasItsName) {
  configuration_.nameOwners = {{kSettings, "nobody"}};
  const ListenerPlace place = places().connection(kSettings);
  EXPECT_EQ(place.path, folder_.path(std::string("run/vantor/users/nobody/") + kSettings));
  EXPECT_TRUE(place.servers.admitsUser(65534, 0));
  EXPECT_FALSE(place.servers.admitsUser(1000, 0));
  EXPECT_FALSE(places().connection("another").servers.admitsUser(65534, 0));
}

}  // namespace
}  // namespace platform
