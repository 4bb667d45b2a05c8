#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/Logging/NSLog.h"

// A client of one settings domain's server. Every message of KLXGlobalSettingsProtocol is forwarded
// to the server by sendMessage(), in one attempt; a failure is in recentException().
//
// Belongs to the run loop's thread; a two-way message blocks for the time-out at most.
class KLXGlobalSettingsClient final : public VantorDistantObject, public SettingsClient {
 public:
  using Environment = VantorDistantObject::Environment;

  // initWithServiceName:startUpNotificationName:andDelegate: and its shorter forms. The delegate
  // may be null; it is not retained, so it outlives this or is cleared before it ends. The
  // environment's table must hold the protocol, or the client is not set up.
  KLXGlobalSettingsClient(const Environment& environment, std::string serviceName,
                          std::optional<std::string> startUpNotificationName,
                          KLXGlobalSettingsClientDelegate* andDelegate);
  KLXGlobalSettingsClient(const Environment& environment, std::string serviceName,
                          KLXGlobalSettingsClientDelegate* andDelegate);
  KLXGlobalSettingsClient(const Environment& environment, std::string serviceName);

  // The factories, one for each domain.
  using Made = std::unique_ptr<KLXGlobalSettingsClient>;
  using Delegate = KLXGlobalSettingsClientDelegate;
  static Made updateSettingsClientWithDelegate(const Environment& environment, Delegate* delegate);
  static Made commonSettingsClientWithDelegate(const Environment& environment, Delegate* delegate);
  static Made deviceControlSettingsClientWithDelegate(const Environment& environment,
                                                      Delegate* delegate);
  static Made appControlSettingsClientWithDelegate(const Environment& environment,
                                                   Delegate* delegate);
  static Made cmxSettingsClientWithDelegate(const Environment& environment, Delegate* delegate);
  static Made heartbeatSettingsClientWithDelegate(const Environment& environment,
                                                  Delegate* delegate);
  static Made ntpSettingsClientWithDelegate(const Environment& environment, Delegate* delegate);
  static Made webControlSettingsClientWithDelegate(const Environment& environment,
                                                   Delegate* delegate);

  // Deprecated, for old callers. They log that to the console, and the client has no delegate and
  // does not observe the server's start.
  static Made createUpdateSettingsClient(const Environment& environment,
                                         const platform::NSLogOutput& console);
  static Made createCommonSettingsClient(const Environment& environment,
                                         const platform::NSLogOutput& console);
  static Made createDeviceControlSettingsClient(const Environment& environment,
                                                const platform::NSLogOutput& console);
  static Made createAppControlSettingsClient(const Environment& environment,
                                             const platform::NSLogOutput& console);

  // Forwarded like every other message.
  platform::Value objectForKey(std::string_view key) override;
  bool hasAnswered() override { return !recentException(); }
  platform::MessageResult probeObjectForKey(std::string_view key,
                                            platform::Duration timeOut) override;
  bool isServerHung() override { return isRemoteServerHung(); }
  void forgetConnection() override { VantorDistantObject::serverDidStart({}); }

  // Forgets the connection, and then notifies the delegate.
  void serverDidStart(const platform::DistributedNotification& notification) override;

  const platform::MethodDescription* methodSignatureForSelector(
      std::string_view selector) const override;

  KLXGlobalSettingsClientDelegate* delegate() const { return delegate_; }
  void setDelegate(KLXGlobalSettingsClientDelegate* delegate) { delegate_ = delegate; }

 private:
  KLXGlobalSettingsClientDelegate* delegate_ = nullptr;
};

// Adds the factories to the table under their selectors. `environment` is copied; the objects that
// it refers to outlive the table and its clients.
void addSettingsClientFactories(SettingsClientFactories& factories,
                                const VantorDistantObject::Environment& environment);
