#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/RunLoops/LoopThread.h"
#include "ServiceManager/Settings/SettingsQuestions.h"

// The clients of settings servers, for one thread that may wait for them. The thread runs from the
// constructor on, which waits until they are made; stop it before this ends.
class SettingsClientsWorker {
 public:
  SettingsClientsWorker(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                        const platform::ListenerPlaces& places,
                        const platform::ProtocolTable& protocols);
  SettingsClientsWorker(const SettingsClientsWorker&) = delete;
  SettingsClientsWorker& operator=(const SettingsClientsWorker&) = delete;
  ~SettingsClientsWorker();

  SettingsWorker worker();

 private:
  struct Parts;

  platform::LoopThread& thread_;
  std::unique_ptr<Parts> parts_;  // made and ended on the thread
};

// Calls `ask` with clients that belong to the calling thread, any, and end with the call. If no
// descriptor is left, `ask` is not called.
void askSettingsOnThisThread(platform::LinuxPlatform& linux, const platform::ListenerPlaces& places,
                             const platform::ProtocolTable& protocols,
                             const std::function<void(const SettingsClientFactories&)>& ask);
