#include "ServiceManager/ServiceManager/LastLoggedInUser.h"

#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"

namespace {

using namespace platform;

constexpr char kLastUsersFactory[] = "cmxSettingsClientWithDelegate:";

class LastLoggedInUserTest : public testing::Test {
 protected:
  // The server's settings; before the first use there is no such server.
  std::map<std::string, Value>& settings() {
    factories_.add(kLastUsersFactory, [this](KLXGlobalSettingsClientDelegate& delegate) {
      ++clientsMade_;
      EXPECT_EQ(&delegate, &user_);
      return SettingsClientResult(std::make_unique<FakeSettingsClient>(settings_));
    });
    return settings_;
  }
  void setHome(const char* home) { settings()["ORBCmxLastLoggedInUser"] = home; }

  Logger2Lines lines_;
  SettingsClientFactories factories_;
  std::map<std::string, Value> settings_;
  int clientsMade_ = 0;
  std::vector<std::thread::id> askedOn_;
  LastLoggedInUser user_{[this](const std::function<void(const SettingsClientFactories&)>& ask) {
    askedOn_.push_back(std::this_thread::get_id());
    ask(factories_);
  }};
};

TEST_F(LastLoggedInUserTest, EachCallHasAClientOfItsOwn) {
  setHome("/home/user");
  EXPECT_EQ(user_.getLastLoggedInUserHomeDirectory(), Value("/home/user"));
  EXPECT_EQ(clientsMade_, 1);
  settings_["ORBCmxLastLoggedInUser"] = "/home/another";
  EXPECT_EQ(user_.getLastLoggedInUserHomeDirectory(), Value("/home/another"));
  EXPECT_EQ(clientsMade_, 2);
}

TEST_F(LastLoggedInUserTest, TheFolderIsReadOnTheCallingThread) {
  setHome("/home/user");
  std::thread::id asking;
  std::thread([&] {
    asking = std::this_thread::get_id();
    EXPECT_EQ(user_.getLastLoggedInUserHomeDirectory(), Value("/home/user"));
  }).join();
  EXPECT_THAT(askedOn_, testing::ElementsAre(asking));
}

TEST_F(LastLoggedInUserTest, AClientAndTheSettingAreNeeded) {
  EXPECT_TRUE(user_.getLastLoggedInUserHomeDirectory().isNil());
  settings();
  EXPECT_TRUE(user_.getLastLoggedInUserHomeDirectory().isNil());
  EXPECT_THAT(lines_.take(), testing::IsEmpty());
}

TEST_F(LastLoggedInUserTest, AFactoryThatReturnsNullKnowsNoUser) {
  bool raises = false;
  factories_.add(kLastUsersFactory,
                 [&raises](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                   if (raises) return raised(kNSInvalidArgumentException, "out of order");
                   return nullptr;
                 });
  EXPECT_TRUE(user_.getLastLoggedInUserHomeDirectory().isNil());
  raises = true;
  EXPECT_TRUE(user_.getLastLoggedInUserHomeDirectory().isNil());
  EXPECT_THAT(lines_.take(), testing::IsEmpty());
}

TEST_F(LastLoggedInUserTest, TheThreadsFactoriesAreNeeded) {
  setHome("/home/user");
  LastLoggedInUser user([](const std::function<void(const SettingsClientFactories&)>&) {});
  EXPECT_TRUE(user.getLastLoggedInUserHomeDirectory().isNil());
}

}  // namespace
