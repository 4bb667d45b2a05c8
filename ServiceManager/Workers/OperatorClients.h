#pragma once

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "ServiceManager/ServiceManager/OperatorWorker.h"
#include "ServiceManager/Settings/NullNotificationCenter.h"
#include "ServiceManager/Workers/ExtensionClients.h"

// The clients that the operator's server uses, for one thread that may wait for the job host, a
// settings server or an extension. The thread runs from the constructor on; stop it before this
// ends.
class OperatorClients {
 public:
  OperatorClients(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                  const platform::ListenerPlaces& places, const platform::ProtocolTable& protocols,
                  platform::CodeSignatures& signatures);
  OperatorClients(const OperatorClients&) = delete;
  OperatorClients& operator=(const OperatorClients&) = delete;

  // The job host answers again, as another client knows.
  void jobHostHasReturned() {
    thread_.loop().post([this] { clients_.host.waitAgain(); });
  }

  OperatorWorker worker();

 private:
  platform::LoopThread& thread_;
  ExtensionClients clients_;
  NullNotificationCenter nullCenter_;
  platform::NamedConnections connections_;
  SettingsClientFactories factories_;
};
