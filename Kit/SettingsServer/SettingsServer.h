#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Kit/SettingsServer/SettingsStore.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/Messages/NSProxy.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"

// A domain that is served: the name of its server, and the notification that announces the server.
struct ServedDomain {
  std::string connectionName;
  std::string startNotification;
};

// The root object of one settings domain. It answers KLXGlobalSettingsProtocol from the store, and
// posts each change, once that is on the disk, with the domain's connection name as the object.
// Setting the present value again counts as a change, too: the client may wait for the
// notification.
//
// An error is logged with its reason. A two-way message also raises it; only the message that
// persists a blob answers NO instead. Every authenticated client may change everything, so the
// sender is ignored, whatever its type.
class SettingsServer final : public platform::MessageReceiver {
 public:
  // All of them outlive this; the store knows the domain by its connection name.
  SettingsServer(ServedDomain domain, SettingsStore& store,
                 platform::DistributedNotificationCenter& center, platform::RefusalLog& refusals);

  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

  // Announces that this server answers now.
  void announceStart();

 private:
  using Arguments = platform::Array;
  using Answer = platform::Result<platform::Value>;
  struct Method;

  // A one-way message has no answer.
  Answer registerDefaults(const Arguments& arguments);
  Answer restoreDefaults(const Arguments& arguments);
  Answer defaultSubscription(const Arguments& arguments);
  template <platform::Value (*convert)(const platform::Value&)>
  Answer read(const Arguments& arguments);
  template <platform::Value (*convert)(const platform::Value&)>
  Answer set(const Arguments& arguments);
  Answer remove(const Arguments& arguments);
  Answer isDefault(const Arguments& arguments);
  Answer persistBlob(const Arguments& arguments);
  Answer persistedBlob(const Arguments& arguments);
  Answer deletePersistedBlob(const Arguments& arguments);
  Answer persistedBlobKeys(const Arguments& arguments);
  Answer dictionaryRepresentation(const Arguments& arguments);
  Answer versionDictionary(const Arguments& arguments);

  Answer removeKeys(const std::vector<std::string>& keys);
  void postChange(const std::string& key);

  const ServedDomain domain_;
  SettingsStore& store_;
  platform::DistributedNotificationCenter& center_;
  platform::RefusalLog& refusals_;
};
