#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"

#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

constexpr std::string_view kFolder = "/run/vantor/connections/";

std::string fileNameOf(std::string_view name) {
  const std::string path = pathOfConnection("/root", name);
  const std::size_t folder = path.find(kFolder);
  EXPECT_EQ(folder, std::string_view("/root").size()) << path;
  return path.substr(folder + kFolder.size());
}

TEST(ConnectionNamesTest, ANameIsItsOwnFileName) {
  EXPECT_EQ(fileNameOf("com.vantor.service.configd.status"), "com.vantor.service.configd.status");
  EXPECT_EQ(pathOfConnection("/", "name"), "/run/vantor/connections/name");
}

TEST(ConnectionNamesTest, ATooLongNameIsStoredByItsDigest) {
  EXPECT_EQ(fileNameOf(std::string(NAME_MAX - 1, 'n')), std::string(NAME_MAX - 1, 'n'));
  EXPECT_EQ(fileNameOf(std::string(NAME_MAX, 'n')), std::string(NAME_MAX, 'n'));
  const std::string digest = fileNameOf(std::string(NAME_MAX + 1, 'n'));
  EXPECT_TRUE(digest.starts_with("sha256-")) << digest;
  EXPECT_EQ(digest.size(), 7u + 64u);
  EXPECT_NE(digest, fileNameOf(std::string(NAME_MAX + 1, 'm')));
}

TEST(ConnectionNamesTest, ANameThatIsAPathIsStoredByItsDigest) {
  for (const std::string_view name :
       {std::string_view(""), std::string_view("."), std::string_view(".."),
        std::string_view(".lock"), std::string_view("../launchd"), std::string_view("a/b"),
        std::string_view("a\0b", 3)}) {
    EXPECT_TRUE(fileNameOf(name).starts_with("sha256-")) << name;
  }
  EXPECT_EQ(fileNameOf("a/b"),
            "sha256-c14cddc033f64b9dea80ea675cf280a015e672516090a5626781153dc68fea11");
}

TEST(ConnectionNamesTest, ANameLikeADigestIsStoredByItsOwnDigest) {
  EXPECT_NE(fileNameOf(fileNameOf("a/b")), fileNameOf("a/b"));
}

class ConnectionsFolderTest : public testing::Test {
 protected:
  ConnectionsFolderTest() { configuration_.root = folder_.path(); }

  std::string path() const { return folder_.path("run/vantor/connections"); }
  mode_t mode() const {
    struct stat status{};
    EXPECT_EQ(::stat(path().c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  const TemporaryFolder folder_;
  PlatformConfiguration configuration_;
};

TEST_F(ConnectionsFolderTest, OnlyItsOwnerMayRegisterNames) {
  const mode_t before = ::umask(077);
  const auto made = makeConnectionsFolder(configuration_);
  ::umask(before);
  ASSERT_TRUE(made) << describe(made.error());
  EXPECT_EQ(mode(), 0755u);
}

TEST_F(ConnectionsFolderTest, IsRepairedIfItExists) {
  ASSERT_TRUE(makeConnectionsFolder(configuration_));
  ASSERT_EQ(::chmod(path().c_str(), 0777), 0);
  ASSERT_TRUE(makeConnectionsFolder(configuration_));
  EXPECT_EQ(mode(), 0755u);
}

TEST_F(ConnectionsFolderTest, IsNotMadeForAGroupThatDoesNotExist) {
  configuration_.group = "no-such-group-here";
  const auto made = makeConnectionsFolder(configuration_);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code, ErrorCode::kNotFound);
  EXPECT_EQ(made.error().context, "there is no group \"no-such-group-here\"");
  EXPECT_NE(::access(path().c_str(), F_OK), 0);
}

TEST_F(ConnectionsFolderTest, TheOwnerOfANameHasAFolder) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may give a folder away";
  configuration_.nameOwners = {{"settings", "nobody"}};
  ASSERT_TRUE(makeConnectionsFolder(configuration_));
  ASSERT_TRUE(makeConnectionsFolder(configuration_));
  struct stat status{};
  ASSERT_EQ(::stat(folder_.path("run/vantor/users/nobody").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 65534u);
  EXPECT_EQ(status.st_mode & 07777u, 0755u);
  ASSERT_EQ(::stat(folder_.path("run/vantor/users").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 0u);
}

TEST_F(ConnectionsFolderTest, IsNotMadeForAnOwnerThatDoesNotExist) {
  configuration_.nameOwners = {{"settings", "no-such-user-here"}};
  const auto made = makeConnectionsFolder(configuration_);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().context, "there is no user \"no-such-user-here\"");
}

class EndpointFolderTest : public ConnectionsFolderTest {
 protected:
  struct stat endpoints() const {
    struct stat status{};
    EXPECT_EQ(::stat(folder_.path("run/vantor/endpoints").c_str(), &status), 0);
    return status;
  }
};

TEST_F(EndpointFolderTest, OnlyTheAudienceMayMakeEndpoints) {
  ASSERT_TRUE(makeEndpointFolder(folder_.path()));
  EXPECT_EQ(endpoints().st_mode & 07777u, 0700u);
  ASSERT_TRUE(shareEndpointFolder(folder_.path(), PeerAudience::all()));
  EXPECT_EQ(endpoints().st_mode & 07777u, 01733u);
  const gid_t group = ::geteuid() == 0 ? 12345 : ::getegid();
  ASSERT_TRUE(
      shareEndpointFolder(folder_.path(), {.everybody = false, .user = {}, .group = group}));
  EXPECT_EQ(endpoints().st_mode & 07777u, 01730u);
  EXPECT_EQ(endpoints().st_gid, group);
  ASSERT_TRUE(shareEndpointFolder(folder_.path(), {}));
  EXPECT_EQ(endpoints().st_mode & 07777u, 01700u);
}

TEST_F(EndpointFolderTest, AKilledProcessLeavesNothingForTheNextStart) {
  folder_.write("run/vantor/endpoints/new-killed/socket", "");
  ASSERT_TRUE(shareEndpointFolder(folder_.path(), {}));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path("run/vantor/endpoints")));
}

TEST_F(ConnectionsFolderTest, ASymbolicLinkInItsPlaceIsRefused) {
  folder_.write("run/vantor/elsewhere/file", "");
  ASSERT_EQ(::symlink("elsewhere", path().c_str()), 0);
  const auto made = makeConnectionsFolder(configuration_);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code, ErrorCode::kDenied);
}

TEST_F(ConnectionsFolderTest, AFolderOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make one";
  ASSERT_TRUE(makeConnectionsFolder(configuration_));
  ASSERT_EQ(::chown(path().c_str(), 12345, 12345), 0);
  const auto made = makeConnectionsFolder(configuration_);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code, ErrorCode::kDenied);
  EXPECT_EQ(made.error().context, path() + " belongs to user 12345");
}

}  // namespace
}  // namespace platform
