#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Examples/DemoProduct/Settings/SettingsStore.h"
#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/Messages/NSProxy.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"

// The root object of one settings domain: answers KLXGlobalSettingsProtocol from the store, and
// posts each change, once it is on the disk, with the domain's connection name as its object. To
// set what was set already is a change, too: who waits for its notice must not wait in vain.
//
// What can't be done as asked is logged with its reason; of a two-way message it is raised as well,
// but for a blob that is not kept, of which the answer is NO. Whoever has been authenticated may
// change everything, so the sender, of whatever kind, is not looked at.
class SettingsServer final : public platform::MessageReceiver {
 public:
  // All outlive this; the store knows the domain by its connection name.
  SettingsServer(const GlobalSettingsDomain& domain, SettingsStore& store,
                 platform::DistributedNotificationCenter& center, platform::RefusalLog& refusals);

  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

  // Tells everybody that this server can be asked now.
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

  const GlobalSettingsDomain domain_;
  SettingsStore& store_;
  platform::DistributedNotificationCenter& center_;
  platform::RefusalLog& refusals_;
};
