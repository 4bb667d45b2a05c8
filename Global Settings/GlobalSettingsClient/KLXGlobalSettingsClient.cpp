#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"

#include <algorithm>
#include <utility>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"

using platform::DistributedNotification;
using platform::MethodDescription;
using platform::NSLogOutput;
using platform::Value;

namespace {

consteval const GlobalSettingsDomain& domain(std::string_view prefix) {
  return *std::ranges::find(kGlobalSettingsDomains, prefix, [](const GlobalSettingsDomain& entry) {
    return std::string_view(entry.prefix);
  });
}

KLXGlobalSettingsClient::Made make(const KLXGlobalSettingsClient::Environment& environment,
                                   const GlobalSettingsDomain& of,
                                   KLXGlobalSettingsClientDelegate* delegate) {
  return std::make_unique<KLXGlobalSettingsClient>(environment, of.connectionName,
                                                   of.startNotification, delegate);
}

KLXGlobalSettingsClient::Made makeDeprecated(
    const KLXGlobalSettingsClient::Environment& environment, const NSLogOutput& console,
    const GlobalSettingsDomain& of, const char* method, const char* settings) {
  platform::NSLog(console,
                  "%s is deprecated. Use "
                  "%sClientWithDelegate:(id<KLXGlobalSettingsClientDelegate>)delegate instead",
                  method, settings);
  return std::make_unique<KLXGlobalSettingsClient>(environment, of.connectionName);
}

}  // namespace

KLXGlobalSettingsClient::KLXGlobalSettingsClient(const Environment& environment,
                                                 std::string serviceName,
                                                 std::optional<std::string> startUpNotificationName,
                                                 KLXGlobalSettingsClientDelegate* andDelegate)
    : VantorDistantObject(environment, std::move(serviceName), kKLXGlobalSettingsProtocol,
                          std::move(startUpNotificationName)),
      delegate_(andDelegate) {}

KLXGlobalSettingsClient::KLXGlobalSettingsClient(const Environment& environment,
                                                 std::string serviceName,
                                                 KLXGlobalSettingsClientDelegate* andDelegate)
    : KLXGlobalSettingsClient(environment, std::move(serviceName), std::nullopt, andDelegate) {}

KLXGlobalSettingsClient::KLXGlobalSettingsClient(const Environment& environment,
                                                 std::string serviceName)
    : KLXGlobalSettingsClient(environment, std::move(serviceName), nullptr) {}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::updateSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("update"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::commonSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("common"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::deviceControlSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("deviceControl"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::appControlSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("appControl"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::cmxSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("cmx"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::heartbeatSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("heartbeat"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::ntpSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("ntp"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::webControlSettingsClientWithDelegate(
    const Environment& environment, Delegate* delegate) {
  return make(environment, domain("webControl"), delegate);
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::createUpdateSettingsClient(
    const Environment& environment, const NSLogOutput& console) {
  return makeDeprecated(environment, console, domain("update"),
                        "+[KLXGlobalSettingsClient createUpdateSettingsClient]", "updateSettings");
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::createCommonSettingsClient(
    const Environment& environment, const NSLogOutput& console) {
  return makeDeprecated(environment, console, domain("common"),
                        "+[KLXGlobalSettingsClient createCommonSettingsClient]", "commonSettings");
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::createDeviceControlSettingsClient(
    const Environment& environment, const NSLogOutput& console) {
  return makeDeprecated(environment, console, domain("deviceControl"),
                        "+[KLXGlobalSettingsClient createDeviceControlSettingsClient]",
                        "deviceControlSettings");
}

KLXGlobalSettingsClient::Made KLXGlobalSettingsClient::createAppControlSettingsClient(
    const Environment& environment, const NSLogOutput& console) {
  return makeDeprecated(environment, console, domain("appControl"),
                        "+[KLXGlobalSettingsClient createAppControlSettingsClient]",
                        "appControlSettings");
}

Value KLXGlobalSettingsClient::objectForKey(std::string_view key) {
  return sendMessage("objectForKey:", {Value(key)}).value_or(Value());
}

platform::MessageResult KLXGlobalSettingsClient::probeObjectForKey(std::string_view key,
                                                                   platform::Duration timeOut) {
  return probeWithMessage("objectForKey:", {Value(key)}, timeOut);
}

void KLXGlobalSettingsClient::serverDidStart(const DistributedNotification& notification) {
  VantorDistantObject::serverDidStart(notification);
  if (delegate_) delegate_->globalSettingsServerDidRestart(*this);
}

const MethodDescription* KLXGlobalSettingsClient::methodSignatureForSelector(
    std::string_view selector) const {
  // By hand, as in VantorDistantObject.
  static const platform::Protocol own("KLXGlobalSettingsClient",
                                      {{"initWithServiceName:startUpNotificationName:andDelegate:"},
                                       {"initWithServiceName:andDelegate:"},
                                       {"initWithServiceName:"},
                                       {"delegate"},
                                       {"setDelegate:"}});
  if (const MethodDescription* method = own.method(selector)) return method;
  return VantorDistantObject::methodSignatureForSelector(selector);
}

void addSettingsClientFactories(SettingsClientFactories& factories,
                                const VantorDistantObject::Environment& environment) {
  using Client = KLXGlobalSettingsClient;
  const auto add = [&](const char* selector, auto factory) {
    factories.add(selector, [environment, factory](KLXGlobalSettingsClientDelegate& delegate) {
      return SettingsClientResult(factory(environment, &delegate));
    });
  };
  // No loop over the domains: it would leave the methods without a caller.
  add("updateSettingsClientWithDelegate:", &Client::updateSettingsClientWithDelegate);
  add("commonSettingsClientWithDelegate:", &Client::commonSettingsClientWithDelegate);
  add("deviceControlSettingsClientWithDelegate:", &Client::deviceControlSettingsClientWithDelegate);
  add("appControlSettingsClientWithDelegate:", &Client::appControlSettingsClientWithDelegate);
  add("cmxSettingsClientWithDelegate:", &Client::cmxSettingsClientWithDelegate);
  add("heartbeatSettingsClientWithDelegate:", &Client::heartbeatSettingsClientWithDelegate);
  add("ntpSettingsClientWithDelegate:", &Client::ntpSettingsClientWithDelegate);
  add("webControlSettingsClientWithDelegate:", &Client::webControlSettingsClientWithDelegate);
}
