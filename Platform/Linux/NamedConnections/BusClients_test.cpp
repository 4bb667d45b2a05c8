#include "Platform/Linux/NamedConnections/BusClients.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

std::string policy(const std::string& allowed) {
  return "<busconfig><policy context=\"default\">" + allowed + "</policy></busconfig>\n";
}

TEST(BusClientsTest, WithoutAGroupOnlyTheOwnerMayConnect) {
  EXPECT_EQ(busClientsText({}, 900), policy("<allow user=\"900\"/>"));
}

TEST(BusClientsTest, TheGroupMayConnect) {
  PlatformConfiguration configuration;
  configuration.group = "a<&\"b";
  EXPECT_EQ(busClientsText(configuration, 0),
            policy("<allow user=\"0\"/><allow group=\"a&lt;&amp;&quot;b\"/>"));
}

TEST(BusClientsTest, EverybodyMayConnectToAnOpenBus) {
  PlatformConfiguration configuration;
  configuration.group = "operators";
  configuration.openListeners = {"states", "com.vantor.notificationbus"};
  EXPECT_EQ(busClientsText(configuration, 0), policy("<allow user=\"0\"/><allow user=\"*\"/>"));
}

TEST(BusClientsTest, ItIsWrittenForEveryReader) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder.path("run/vantor"));
  const PlatformConfiguration configuration = defaultPlatformConfiguration(folder.path());
  for (int turn = 0; turn < 2; ++turn) {
    const auto isChanged = writeBusClients(configuration);
    ASSERT_TRUE(isChanged);
    EXPECT_EQ(*isChanged, turn == 0);
    EXPECT_EQ(contentOfFile(pathOfBusClients(folder.path())),
              busClientsText(configuration, ::geteuid()));
    forgetOutdatedBus(folder.path());
  }
  struct stat status{};
  ASSERT_EQ(::stat(pathOfBusClients(folder.path()).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0644u);
}

TEST(BusClientsTest, AnUnchangedFileIsNotWritten) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder.path("run/vantor"));
  const PlatformConfiguration configuration = defaultPlatformConfiguration(folder.path());
  ASSERT_TRUE(writeBusClients(configuration));
  struct stat before{};
  ASSERT_EQ(::stat(pathOfBusClients(folder.path()).c_str(), &before), 0);
  ASSERT_TRUE(writeBusClients(configuration));
  struct stat after{};
  ASSERT_EQ(::stat(pathOfBusClients(folder.path()).c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST(BusClientsTest, AnOutdatedBusIsKnownUntilItIsForgotten) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder.path("run/vantor"));
  const PlatformConfiguration configuration = defaultPlatformConfiguration(folder.path());
  for (int host = 0; host < 3; ++host) EXPECT_TRUE(writeBusClients(configuration).value());
  struct stat status{};
  ASSERT_EQ(::stat(pathOfOutdatedBus(folder.path()).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  forgetOutdatedBus(folder.path());
  EXPECT_FALSE(std::filesystem::exists(pathOfOutdatedBus(folder.path())));
  EXPECT_FALSE(writeBusClients(configuration).value());
}

TEST(BusClientsTest, WithoutItsMarkNoFileIsReplaced) {
  const TemporaryFolder folder;
  std::filesystem::create_directories(folder.path("run/vantor"));
  PlatformConfiguration configuration = defaultPlatformConfiguration(folder.path());
  ASSERT_TRUE(writeBusClients(configuration));
  forgetOutdatedBus(folder.path());
  std::filesystem::create_directory(pathOfOutdatedBus(folder.path()));  // It can't be written.
  configuration.group = "operators";
  EXPECT_FALSE(writeBusClients(configuration));
  EXPECT_FALSE(std::filesystem::exists(pathOfBusClients(folder.path())));
}

TEST(BusClientsTest, AFileThatCannotBeReplacedAdmitsNobody) {
  const TemporaryFolder folder;
  PlatformConfiguration configuration = defaultPlatformConfiguration(folder.path());
  EXPECT_FALSE(writeBusClients(configuration));  // There is no folder.
  EXPECT_FALSE(std::filesystem::exists(pathOfBusClients(folder.path())));
}

}  // namespace
}  // namespace platform
