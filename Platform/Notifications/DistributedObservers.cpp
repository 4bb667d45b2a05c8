#include "Platform/Notifications/DistributedObservers.h"

#include <algorithm>
#include <utility>

#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

bool containsRemoteObject(const Value& value) {
  if (value.type() == Value::Type::kRemoteObject) return true;
  if (const Array* array = value.array()) return std::ranges::any_of(*array, containsRemoteObject);
  const Dictionary* dictionary = value.dictionary();
  return dictionary != nullptr && std::ranges::any_of(*dictionary, [](const auto& entry) {
           return containsRemoteObject(entry.second);
         });
}

bool suits(const DistributedObservers::Entry& entry, const DistributedNotification& notification) {
  return (!entry.name || *entry.name == notification.name) &&
         (!entry.object || entry.object == notification.object);
}

}  // namespace

std::shared_ptr<DistributedObservers::Entry> DistributedObservers::add(
    std::optional<std::string> name, std::optional<std::string> object,
    DistributedNotificationCenter::Handler handler) {
  std::erase_if(entries_, [](const auto& entry) { return entry.expired(); });
  auto entry = std::make_shared<Entry>(
      Entry{std::move(name), std::move(object), std::move(handler), nextNumber_++});
  entries_.push_back(entry);
  return entry;
}

void DistributedObservers::deliver(const DistributedNotification& notification, std::uint64_t end) {
  // A copy, because handlers may add observers.
  for (const auto& observer : std::vector(entries_)) {
    const auto entry = observer.lock();
    if (entry && entry->number < end && suits(*entry, notification)) entry->handler(notification);
  }
}

std::vector<std::optional<std::string>> DistributedObservers::names() const {
  std::vector<std::optional<std::string>> names;
  for (const auto& observer : entries_) {
    const auto entry = observer.lock();
    if (entry && std::ranges::find(names, entry->name) == names.end()) names.push_back(entry->name);
  }
  return names;
}

class ReturnObservers::Observer final : public DistributedNotificationCenter::Observation {
 public:
  explicit Observer(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}

 private:
  std::shared_ptr<Entry> entry_;
};

std::unique_ptr<DistributedNotificationCenter::Observation> ReturnObservers::add(
    std::function<void()> handler) {
  std::erase_if(entries_, [](const auto& entry) { return entry.expired(); });
  auto entry = std::make_shared<Entry>(std::move(handler));
  entries_.push_back(entry);
  return std::make_unique<Observer>(std::move(entry));
}

void ReturnObservers::notify() {
  // A copy, because handlers may add others.
  for (const auto& observer : std::vector(entries_)) {
    if (const auto handler = observer.lock()) (*handler)();
  }
}

Result<void> checkDistributedNotification(const DistributedNotification& notification) {
  const auto invalid = [](const char* what) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, what});
  };
  if (notification.name.empty()) return invalid("it has no name");
  const Value& userInfo = notification.userInfo;
  if (!userInfo.isNil() && userInfo.dictionary() == nullptr)
    return invalid("its user info is no dictionary");
  if (containsRemoteObject(userInfo)) return invalid("its user info holds a remote object");
  return {};
}

std::string lostPostText(std::string_view name, const Error& why) {
  return stringWithFormat("The notification \"%@\" was not posted: %@", name, describe(why));
}

void logLostPost(SystemLog& log, std::string_view name, const Error& why) {
  const AslClient client{"DistributedNotificationCenter", "com.vantor.platform"};
  log.asl_log(&client, ASL_LEVEL_WARNING, lostPostText(name, why));
}

}  // namespace platform
