#include "ServiceManager/Settings/SettingsSources.h"

#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kCmxFactory[] = "cmxSettingsClientWithDelegate:";
constexpr char kLastUser[] = "ORBCmxLastLoggedInUser";

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
  std::vector<std::thread::id> askedOn_;
  IdleDelegate delegate_;
  SettingsSources sources_{factories_,
                           [this](const std::function<void(const SettingsClientFactories&)>& ask) {
                             askedOn_.push_back(std::this_thread::get_id());
                             ask(factories_);
                           },
                           delegate_};
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

// The last logged-in user.

TEST_F(SettingsSourcesTest, TheLastUsersFolderHasItsOwnClient) {
  settings("cmx")[kLastUser] = "/home/user";
  sources_.configurationWithSelectorPrefix("cmx");
  EXPECT_EQ(sources_.getLastLoggedInUserHomeDirectory(), Value("/home/user"));
  EXPECT_EQ(clientsMade_, 2);
  settings_["cmx"][kLastUser] = "/home/another";
  EXPECT_EQ(sources_.getLastLoggedInUserHomeDirectory(), Value("/home/another"));
  EXPECT_EQ(clientsMade_, 3);
}

TEST_F(SettingsSourcesTest, TheLastUsersFolderIsReadOnTheCallingThread) {
  settings("cmx")[kLastUser] = "/home/user";
  std::thread::id asking;
  std::thread([&] {
    asking = std::this_thread::get_id();
    EXPECT_EQ(sources_.getLastLoggedInUserHomeDirectory(), Value("/home/user"));
  }).join();
  EXPECT_THAT(askedOn_, ElementsAre(asking));
  EXPECT_FALSE(sources_.configurationClients());
}

TEST_F(SettingsSourcesTest, TheLastUserNeedsAClientAndTheSetting) {
  EXPECT_TRUE(sources_.getLastLoggedInUserHomeDirectory().isNil());
  settings("cmx");
  EXPECT_TRUE(sources_.getLastLoggedInUserHomeDirectory().isNil());
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(SettingsSourcesTest, AFactoryThatReturnsNullKnowsNoLastUser) {
  bool raises = false;
  factories_.add(kCmxFactory, [&raises](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
    if (raises) return raised(kNSInvalidArgumentException, "out of order");
    return nullptr;
  });
  EXPECT_TRUE(sources_.getLastLoggedInUserHomeDirectory().isNil());
  raises = true;
  EXPECT_TRUE(sources_.getLastLoggedInUserHomeDirectory().isNil());
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(SettingsSourcesTest, TheLastUserNeedsTheThreadsFactories) {
  settings("cmx")[kLastUser] = "/home/user";
  const SettingsSources sources(
      factories_, [](const std::function<void(const SettingsClientFactories&)>&) {}, delegate_);
  EXPECT_TRUE(sources.getLastLoggedInUserHomeDirectory().isNil());
}

}  // namespace
