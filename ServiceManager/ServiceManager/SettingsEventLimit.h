#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "Platform/Values/Time.h"

// Announcements of changed settings, of which any program may post as many as it likes, must not
// push all other events out of the log. Within kInterval, repetitions of the last key have no
// event, and after kMost events one without a key stands for all others.
class SettingsEventLimit {
 public:
  static constexpr platform::Duration kInterval = std::chrono::seconds(2);
  static constexpr std::size_t kMost = 32;

  // The key for the event of a change of `key`; nothing if it has no event.
  std::optional<std::string> keyOfEvent(const std::string& key, platform::Instant now);

 private:
  std::optional<platform::Instant> began_;
  std::size_t count_ = 0;
  std::string lastKey_;
};
