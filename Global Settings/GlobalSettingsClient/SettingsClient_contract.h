#pragma once

// The behaviour that every implementation of SettingsClient has. A test program derives a server
// from SettingsUnderTest and instantiates the suite with a function that makes it:
//   INSTANTIATE_TEST_SUITE_P(Fake, SettingsClientContract, testing::Values(&makeFakeSettings));

#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"

// A server without any setting, and a client of it.
class SettingsUnderTest {
 public:
  virtual ~SettingsUnderTest() = default;

  virtual SettingsClient& client() = 0;
  virtual void set(const std::string& key, platform::Value value) = 0;
  virtual void remove(const std::string& key) = 0;
};

class SettingsClientContract
    : public testing::TestWithParam<std::unique_ptr<SettingsUnderTest> (*)()> {
 protected:
  using Value = platform::Value;

  static constexpr std::chrono::seconds kTimeout{1};

  platform::MessageResult probe(const char* key) {
    return client_.probeObjectForKey(key, kTimeout);
  }

  const std::unique_ptr<SettingsUnderTest> settings_ = GetParam()();
  SettingsClient& client_ = settings_->client();
};

TEST_P(SettingsClientContract, ASettingHasItsCurrentValue) {
  settings_->set("mode", "on");
  settings_->set("another", "x");
  EXPECT_EQ(client_.objectForKey("mode"), Value("on"));
  settings_->set("mode", "off");
  EXPECT_EQ(client_.objectForKey("mode"), Value("off"));
}

TEST_P(SettingsClientContract, AnAbsentSettingIsNil) {
  EXPECT_TRUE(client_.objectForKey("mode").isNil());
  settings_->set("mode", "on");
  EXPECT_TRUE(client_.objectForKey("Mode").isNil());
  EXPECT_TRUE(client_.objectForKey("").isNil());
  settings_->remove("mode");
  EXPECT_TRUE(client_.objectForKey("mode").isNil());
}

TEST_P(SettingsClientContract, ASettingHasAnyType) {
  const platform::Dictionary dictionary{{"a", 1}, {"b", platform::Array{"x", 2.5}}};
  for (const Value& value : {Value(true), Value(-5), Value(0.5), Value(""),
                             Value(platform::Data{1, 2}), Value(dictionary)}) {
    settings_->set("mode", value);
    EXPECT_EQ(client_.objectForKey("mode"), value);
    EXPECT_EQ(client_.objectForKey("mode").type(), value.type());
  }
}

TEST_P(SettingsClientContract, AProbeReturnsTheSameValue) {
  EXPECT_EQ(probe("mode"), platform::MessageResult(Value()));
  settings_->set("mode", "on");
  EXPECT_EQ(probe("mode"), platform::MessageResult("on"));
  EXPECT_EQ(client_.objectForKey("mode"), Value("on"));
  settings_->set("mode", "off");
  EXPECT_EQ(probe("mode"), platform::MessageResult("off"));
}

TEST_P(SettingsClientContract, AForgottenConnectionChangesNoAnswer) {
  settings_->set("mode", "on");
  client_.forgetConnection();
  EXPECT_EQ(client_.objectForKey("mode"), Value("on"));
  client_.forgetConnection();
  client_.forgetConnection();
  EXPECT_EQ(probe("mode"), platform::MessageResult("on"));
  EXPECT_EQ(client_.objectForKey("mode"), Value("on"));
  EXPECT_TRUE(client_.objectForKey("absent").isNil());
}
