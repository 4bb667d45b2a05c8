#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/RunLoops/LoopThread.h"
#include "ServiceManager/Settings/SettingsQuestions.h"

// The clients of settings servers. Each server has a thread, since a server that hangs must delay
// no other. A thread is started when its server is first asked, so no wait is needed for it.
// Belongs to the main thread.
class SettingsClientsWorker {
 public:
  // The eight settings servers, and the status server of the configuration server. A catalogue may
  // name others, which do not exist.
  static constexpr std::size_t kMaximumThreads = 9;

  // All of it outlives this.
  struct Environment {
    platform::LinuxPlatform& linux;
    const platform::ListenerPlaces& places;
    const platform::ProtocolTable& protocols;
  };

  // Starts the first thread, which also asks the servers for which no other can be had.
  static platform::Result<std::unique_ptr<SettingsClientsWorker>> make(
      const Environment& environment);
  SettingsClientsWorker(const SettingsClientsWorker&) = delete;
  SettingsClientsWorker& operator=(const SettingsClientsWorker&) = delete;
  // Stop the threads before.
  ~SettingsClientsWorker();

  SettingsWorker worker();
  std::vector<platform::LoopThread*> threads() const;

 private:
  class Thread;
  explicit SettingsClientsWorker(const Environment& environment);

  platform::Result<Thread*> startThread();
  Thread& threadOf(const std::string& server);

  const Environment environment_;
  std::vector<std::unique_ptr<Thread>> threads_;
  std::map<std::string, Thread*> threadOfServer_;
};

// Calls `ask` with clients that belong to the calling thread, any, and end with the call. If no
// descriptor is left, `ask` is not called.
void askSettingsOnThisThread(platform::LinuxPlatform& linux, const platform::ListenerPlaces& places,
                             const platform::ProtocolTable& protocols,
                             const std::function<void(const SettingsClientFactories&)>& ask);
