#pragma once

#include <map>
#include <string>
#include <string_view>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"

// Answers from settings that the test holds, which outlive it.
class FakeSettingsClient final : public SettingsClient {
 public:
  // `allForgetCalls` counts the calls of forgetConnection() for several clients.
  explicit FakeSettingsClient(const std::map<std::string, platform::Value>& settings,
                              int* allForgetCalls = nullptr)
      : settings_(settings), allForgetCalls_(allForgetCalls) {}

  platform::Value objectForKey(std::string_view key) override {
    const auto found = settings_.find(std::string(key));
    return found == settings_.end() ? platform::Value() : found->second;
  }
  platform::MessageResult probeObjectForKey(std::string_view key, platform::Duration) override {
    return objectForKey(key);
  }
  bool isServerHung() override { return isHung && *isHung; }
  void forgetConnection() override {
    ++forgetCalls;
    if (allForgetCalls_ != nullptr) ++*allForgetCalls_;
  }

  int forgetCalls = 0;
  const bool* isHung = nullptr;  // held by the test

 private:
  const std::map<std::string, platform::Value>& settings_;
  int* const allForgetCalls_;
};
