#include "ServiceManager/ServiceManager/SettingsEventLimit.h"

using namespace platform;

std::optional<std::string> SettingsEventLimit::keyOfEvent(const std::string& key, Instant now) {
  if (!began_ || now - *began_ >= kInterval) {
    began_ = now;
    count_ = 0;
  }
  const bool isRepeated = count_ > 0 && key == lastKey_;
  if (isRepeated || count_ > kMost) return std::nullopt;
  lastKey_ = key;
  return ++count_ > kMost ? std::string() : key;
}
