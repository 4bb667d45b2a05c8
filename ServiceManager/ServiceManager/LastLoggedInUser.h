#pragma once

#include <functional>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"

// Knows the home folder of the user who logged in last, from its settings server. The
// executable-information service shares it, since a call may outlast the daemon's object. Any
// thread; blocks for the answer.
class LastLoggedInUser final : public ExecInfoHandlerDelegate,
                               public KLXGlobalSettingsClientDelegate {
 public:
  // Calls `ask` with factories whose clients belong to the calling thread and end with the call.
  using WithFactories =
      std::function<void(const std::function<void(const SettingsClientFactories&)>& ask)>;

  // `withFactoriesOfThisThread` is called on any thread.
  explicit LastLoggedInUser(WithFactories withFactoriesOfThisThread);

  platform::Value getLastLoggedInUserHomeDirectory() override;

 private:
  const WithFactories withFactoriesOfThisThread_;
};
