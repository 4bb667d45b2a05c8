// The control socket of a loaded extension.

#include "ServiceManager/Supervision/ExtensionLoad.h"

#include <memory>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/Supervision/KernelExtensions_fixture.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kConnectedToControl[] = "7 Connected to Generic Kext";
constexpr char kNotConnectedToControl[] = "7 Unable to establish connection with the Generic kext";

class ExtensionLoadTest : public WithKernelExtensions<SupervisionFixture> {
 protected:
  std::unique_ptr<ControlSocket> connect(std::string_view name) {
    return createControlSocketWithIdentifier(controls_, name);
  }
};

TEST_F(ExtensionLoadTest, AControlSocketIsConnected) {
  extensions_.setLoaded(kNetwork);
  EXPECT_TRUE(connect(kNetwork));
  EXPECT_THAT(takeLog(), ElementsAre(kConnectedToControl));
}

TEST_F(ExtensionLoadTest, AnUnknownControlHasNoSocketAndNoLine) {
  EXPECT_FALSE(connect(kNetwork));
  EXPECT_FALSE(connect(""));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExtensionLoadTest, ASocketThatCannotBeOpenedIsNotLogged) {
  extensions_.setLoaded(kNetwork);
  controls_.setWithoutDescriptors(true);
  EXPECT_FALSE(connect(kNetwork));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExtensionLoadTest, AConnectionThatFailsIsLogged) {
  extensions_.setLoaded(kNetwork);
  controls_.setUnreachable(kNetwork);
  EXPECT_FALSE(connect(kNetwork));
  EXPECT_THAT(takeLog(), ElementsAre(kNotConnectedToControl));
}

TEST_F(ExtensionLoadTest, AnotherUsersControlIsIgnored) {
  extensions_.setLoaded(kNetwork);
  controls_.setForeign(kNetwork);
  EXPECT_FALSE(connect(kNetwork));
  EXPECT_THAT(takeLog(), ElementsAre(kNotConnectedToControl));
}

TEST_F(ExtensionLoadTest, AControlsNameIsCutTo96Bytes) {
  for (const std::size_t size : {95u, 96u, 97u, 1000u}) {
    const std::string name(size, 'a');
    const std::string cut = name.substr(0, 96);
    controls_.offer(cut, [this] { return std::make_unique<Handler>(network_); });
    EXPECT_TRUE(connect(name)) << size;
    controls_.withdraw(cut);
  }
}

}  // namespace
