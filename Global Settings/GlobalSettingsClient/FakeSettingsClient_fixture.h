#pragma once

#include <map>
#include <string>
#include <string_view>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"

// Answers from settings that the test holds, which outlive it.
class FakeSettingsClient final : public SettingsClient {
 public:
  explicit FakeSettingsClient(const std::map<std::string, platform::Value>& settings)
      : settings_(settings) {}

  platform::Value objectForKey(std::string_view key) override {
    const auto found = settings_.find(std::string(key));
    return found == settings_.end() ? platform::Value() : found->second;
  }
  platform::MessageResult probeObjectForKey(std::string_view key, platform::Duration) override {
    return objectForKey(key);
  }
  void forgetConnection() override { ++forgetCalls; }

  int forgetCalls = 0;

 private:
  const std::map<std::string, platform::Value>& settings_;
};
