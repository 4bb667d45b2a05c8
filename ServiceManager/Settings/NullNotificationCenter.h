#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Notifications/DistributedNotificationCenter.h"

// A centre that never notifies anybody, for clients that need no notice of their servers' starts.
class NullNotificationCenter final : public platform::DistributedNotificationCenter {
 public:
  std::unique_ptr<Observation> addObserver(
      std::optional<std::string> /*name*/, std::optional<std::string> /*object*/,
      Handler /*handler*/, platform::NSNotificationSuspensionBehavior /*behavior*/) override {
    return nullptr;
  }
  std::unique_ptr<Observation> observeReturn(std::function<void()> /*handler*/) override {
    return nullptr;
  }
  void postNotificationName(std::string_view /*name*/, std::optional<std::string> /*object*/,
                            platform::Value /*userInfo*/,
                            platform::NSNotificationPosting /*posting*/) override {}
};
