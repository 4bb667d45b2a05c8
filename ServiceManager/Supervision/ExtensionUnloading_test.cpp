// Unloading on older releases.

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "ServiceManager/Supervision/KernelExtensions_fixture.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

// Releases before 10.7 have a program that unloads.

class OldReleaseTest : public WithKernelExtensions<SupervisionFixture> {
 protected:
  bool load(const char* identifier, const char* name) {
    return load(std::optional(std::string(identifier)), name);
  }
  bool load(const std::optional<std::string>& identifier, const char* name) {
    return answerTo<bool>([&](ExtensionControl::Done done) {
      control_.loadKextWithIdentifier(identifier, name, {}, std::move(done));
    });
  }

  OldReleaseTest() {
    system_.setRelease("10.8.0", {10, 6, 8});
    extensions_.setLoaded(kNetwork);
    network_.version = integer(4);
    extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
    tasks_.setProgram("/root/sbin/kextunload", {});
  }
  std::vector<std::string> argumentsOf(const char* identifier) {
    load(identifier, "net");
    return tasks_.launches().empty() ? std::vector<std::string>()
                                     : tasks_.launches().back().arguments;
  }
};

TEST_F(OldReleaseTest, TheProgramUnloads) {
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_THAT(requests(), ElementsAre(kLoadNetwork));
  ASSERT_EQ(tasks_.launches().size(), 1u);
  EXPECT_EQ(tasks_.launches()[0].path, "/root/sbin/kextunload");
}

TEST_F(OldReleaseTest, AnExtensionIsNamedByItsIdentifier) {
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre("-b", kNetwork));
}

TEST_F(OldReleaseTest, AnIdentifierThatIsAPathIsUsedItself) {
  files_.addFile(kNetwork);
  files_.addFile(std::string("/root/System/Library/Extensions/") + kNetwork);
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(kNetwork));
}

// The daemon's own bundle is on a real disk, because resources are looked up in the file system.
class OldReleaseWithResourceTest : public OldReleaseTest {
 protected:
  OldReleaseWithResourceTest() {
    bundle_ = platform::Bundle(
        {folder_.path(), folder_.path("Info.plist"), folder_.path("daemon"), folder_.path()}, {});
    folder_.write(std::string(kNetwork) + ".kext/Contents/Info.plist", "");
    files_.addFile(std::string("/root/System/Library/Extensions/") + kNetwork);
  }
  std::string resource() const { return folder_.path(std::string(kNetwork) + ".kext"); }

  TemporaryFolder folder_;
};

TEST_F(OldReleaseWithResourceTest, ABundledExtensionComesBeforeTheSystems) {
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(resource()));
}

TEST_F(OldReleaseWithResourceTest, APathComesBeforeABundledExtension) {
  files_.addFile(kNetwork);
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(kNetwork));
}

TEST_F(OldReleaseWithResourceTest, AnotherTypeOfResourceIsIgnored) {
  std::filesystem::rename(resource(), folder_.path(kNetwork));
  EXPECT_THAT(argumentsOf(kNetwork),
              ElementsAre(std::string("/root/System/Library/Extensions/") + kNetwork));
}

TEST_F(OldReleaseWithResourceTest, FromRelease11OnResourcesAreIgnored) {
  for (const char* release : {"11.0.0", "12.0.0", "15.0.0"}) {
    system_.setRelease(release, {10, 7, 0});
    network_.version = integer(4);
    EXPECT_TRUE(load(kNetwork, "net"));
    EXPECT_THAT(tasks_.launches(), IsEmpty()) << release;
  }
}

TEST_F(OldReleaseTest, ASystemExtensionIsNamedByItsPath) {
  const std::string path = std::string("/root/System/Library/Extensions/") + kNetwork;
  files_.addFile(path);
  EXPECT_THAT(argumentsOf(kNetwork), ElementsAre(path));
}

TEST_F(OldReleaseTest, AProgramThatFailsIsTriedForASecond) {
  for (const int status : {1, 2, 255}) {
    network_.version = integer(4);
    tasks_.setProgram("/root/sbin/kextunload", {{}, {}, status});
    EXPECT_EQ(timeOf([&] { EXPECT_FALSE(load(kNetwork, "net")); }), 1200ms);
    EXPECT_EQ(countInLog("Unable to unload kext 'com.vantor.nke.wfk'."), 1u);
    takeLog();
  }
  EXPECT_EQ(tasks_.launches().size(), 21u);
}

TEST_F(OldReleaseTest, AMissingProgramIsAFailureToo) {
  tasks_.setProgram("/root/sbin/kextunload",
                    {{}, {}, 0, NSException{kNSInvalidArgumentException, "no", {}}});
  EXPECT_FALSE(load(kNetwork, "net"));
}

TEST_F(OldReleaseTest, WithoutAnIdentifierNothingIsRun) {
  EXPECT_FALSE(load(std::nullopt, "net"));
  EXPECT_THAT(tasks_.launches(), IsEmpty());
  EXPECT_EQ(countInLog("Unable to unload kext '(null)'."), 1u);
}

TEST_F(OldReleaseTest, FromRelease11OnThePlatformUnloads) {
  system_.setRelease("11.0.0", {10, 7, 0});
  EXPECT_TRUE(load(kNetwork, "net"));
  EXPECT_THAT(tasks_.launches(), IsEmpty());
  EXPECT_THAT(requests(), ElementsAre(kUnloadNetwork, kLoadNetwork));
}

}  // namespace
