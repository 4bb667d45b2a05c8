#include "Platform/Notifications/NotificationCenter.h"

namespace platform {

struct NotificationCenter::Observation::Entry {
  std::string name;
  const void* object;
  Handler handler;
};

NotificationCenter::Observation NotificationCenter::addObserver(std::string_view name,
                                                                const void* object,
                                                                Handler handler) {
  std::erase_if(entries_, [](const auto& entry) { return entry.expired(); });
  auto entry = std::make_shared<Observation::Entry>(std::string(name), object, std::move(handler));
  entries_.push_back(entry);
  return Observation(std::move(entry));
}

void NotificationCenter::post(const Notification& notification) {
  const auto snapshot = entries_;
  for (const auto& weak : snapshot) {
    const auto entry = weak.lock();
    if (!entry || entry->name != notification.name) continue;
    if (entry->object && entry->object != notification.object) continue;
    entry->handler(notification);
  }
}

}  // namespace platform
