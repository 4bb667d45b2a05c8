#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/BackgroundServices/ServiceReadiness.h"

namespace platform {

// Records announcements in the words of the real one.
class FakeServiceReadiness final : public ServiceReadiness {
 public:
  // From now on announcements are recorded, but fail.
  void fail() { failing_ = true; }

  const std::vector<std::string>& announcements() const { return announcements_; }

  Result<void> announceReady() override { return announce("READY=1"); }
  Result<void> announceStatus(std::string_view status) override {
    return announce("STATUS=" + std::string(status));
  }
  Result<void> announceStopping() override { return announce("STOPPING=1"); }

 private:
  Result<void> announce(std::string text) {
    announcements_.push_back(std::move(text));
    if (!failing_) return {};
    return std::unexpected(Error{ErrorCode::kSystem, 0, "nobody listens"});
  }

  bool failing_ = false;
  std::vector<std::string> announcements_;
};

}  // namespace platform
