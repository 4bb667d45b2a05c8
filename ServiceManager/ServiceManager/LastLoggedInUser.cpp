#include "ServiceManager/ServiceManager/LastLoggedInUser.h"

#include <utility>

using namespace platform;

LastLoggedInUser::LastLoggedInUser(WithFactories withFactoriesOfThisThread)
    : withFactoriesOfThisThread_(std::move(withFactoriesOfThisThread)) {}

Value LastLoggedInUser::getLastLoggedInUserHomeDirectory() {
  // Use a client of its own: the answer must not depend on the clients that evaluations have made.
  Value home;
  withFactoriesOfThisThread_([&](const SettingsClientFactories& factories) {
    const auto* factory = factories.find("cmxSettingsClientWithDelegate:");
    if (!factory) return;
    const SettingsClientResult client = (*factory)(*this);
    if (client && *client) home = (*client)->objectForKey("ORBCmxLastLoggedInUser");
  });
  return home;
}
