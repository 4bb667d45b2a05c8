#include "ServiceManager/Settings/SettingsSources.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kCmxFactory[] = "cmxSettingsClientWithDelegate:";

struct IdleDelegate final : KLXGlobalSettingsClientDelegate {};

class SettingsSourcesTest : public testing::Test {
 protected:
  // The settings that a prefix's server holds; naming them makes the prefix resolve.
  std::map<std::string, Value>& settings(const std::string& prefix) {
    factories_.add(
        prefix + "SettingsClientWithDelegate:",
        [this, prefix](KLXGlobalSettingsClientDelegate& delegate) {
          ++clientsMade_;
          EXPECT_EQ(&delegate, &delegate_);
          return SettingsClientResult(std::make_unique<FakeSettingsClient>(settings_[prefix]));
        });
    return settings_[prefix];
  }
  FakeSettingsClient& client(const std::string& prefix) {
    return dynamic_cast<FakeSettingsClient&>(*sources_.configurationWithSelectorPrefix(prefix));
  }

  Logger2Lines lines_;
  SettingsClientFactories factories_;
  std::map<std::string, std::map<std::string, Value>> settings_;
  int clientsMade_ = 0;
  IdleDelegate delegate_;
  SettingsSources sources_{factories_, delegate_};
};

TEST_F(SettingsSourcesTest, ASourcesClientIsMadeOnceAtItsFirstUse) {
  settings("common");
  EXPECT_FALSE(sources_.configurationClients());
  EXPECT_EQ(clientsMade_, 0);
  SettingsClient* const made = sources_.configurationWithSelectorPrefix("common");
  EXPECT_TRUE(made);
  EXPECT_EQ(sources_.configurationWithSelectorPrefix("common"), made);
  EXPECT_EQ(sources_.configurationClients()->at("common").get(), made);
  EXPECT_EQ(clientsMade_, 1);
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(SettingsSourcesTest, EachSourceHasAClientOfItsOwn) {
  settings("common")["mode"] = "on";
  settings("update")["mode"] = "off";
  EXPECT_EQ(client("common").objectForKey("mode"), Value("on"));
  EXPECT_EQ(client("update").objectForKey("mode"), Value("off"));
  EXPECT_EQ(sources_.configurationClients()->size(), 2u);
}

TEST_F(SettingsSourcesTest, ASourceThatFailedIsNeverRetried) {
  EXPECT_FALSE(sources_.configurationWithSelectorPrefix("common"));
  EXPECT_THAT(lines_.take(), ElementsAre("3 Unable to resolve method name for selector: "
                                         "commonSettingsClientWithDelegate:: Exception: "
                                         "+[KLXGlobalSettingsClient "
                                         "commonSettingsClientWithDelegate:]: "
                                         "unrecognized selector sent to class"));
  settings("common");  // Now it would resolve.
  EXPECT_FALSE(sources_.configurationWithSelectorPrefix("common"));
  EXPECT_TRUE(sources_.configurationClients()->at("common") == nullptr);
  EXPECT_THAT(lines_.take(), IsEmpty());
  EXPECT_EQ(clientsMade_, 0);
}

TEST_F(SettingsSourcesTest, AFactoryThatRaisesIsLoggedAndNeverRetried) {
  int calls = 0;
  factories_.add(kCmxFactory, [&calls](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
    ++calls;
    return raised(kNSInvalidArgumentException, "out of order");
  });
  EXPECT_FALSE(sources_.configurationWithSelectorPrefix("cmx"));
  EXPECT_FALSE(sources_.configurationWithSelectorPrefix("cmx"));
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(lines_.take(),
              ElementsAre("3 Unable to resolve method name for selector: "
                          "cmxSettingsClientWithDelegate:: Exception: out of order"));
}

TEST_F(SettingsSourcesTest, AFactoryThatThrowsIsRememberedAndTheErrorForwarded) {
  factories_.add(kCmxFactory, [](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
    throw std::runtime_error("out of order");
  });
  EXPECT_THROW(sources_.configurationWithSelectorPrefix("cmx"), std::runtime_error);
  EXPECT_FALSE(sources_.configurationWithSelectorPrefix("cmx"));
}

TEST_F(SettingsSourcesTest, AFactoryThatReturnsNullIsRemembered) {
  factories_.add(kCmxFactory,
                 [](KLXGlobalSettingsClientDelegate&) { return SettingsClientResult(nullptr); });
  EXPECT_FALSE(sources_.configurationWithSelectorPrefix("cmx"));
  EXPECT_TRUE(sources_.configurationClients()->contains("cmx"));
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(SettingsSourcesTest, EveryClientForgetsItsConnection) {
  sources_.forgetConnections();  // There is no client yet.
  EXPECT_FALSE(sources_.configurationClients());
  settings("common");
  settings("update");
  EXPECT_FALSE(sources_.configurationWithSelectorPrefix("unknown"));
  FakeSettingsClient& common = client("common");
  FakeSettingsClient& update = client("update");
  sources_.forgetConnections();
  EXPECT_EQ(common.forgetCalls, 1);
  EXPECT_EQ(update.forgetCalls, 1);
  sources_.forgetConnections();
  EXPECT_EQ(update.forgetCalls, 2);
  EXPECT_EQ(&client("common"), &common);
}

}  // namespace
