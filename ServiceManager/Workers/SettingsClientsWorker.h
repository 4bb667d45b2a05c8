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
// no other. A thread is started when its server is first asked, so no wait is needed for it. If the
// system has no thread left, the server shares one with others of its kind until there is one. The
// server that is asked first always has its own: it is the configuration server, on which
// everything depends. Belongs to the main thread.
class SettingsClientsWorker {
 public:
  // The eight settings servers, and the status server of the configuration server. A catalogue may
  // name others, which do not exist. They use the shared thread, which comes in addition.
  static constexpr std::size_t kMaximumThreads = 9;

  // All of it outlives this.
  struct Environment {
    platform::LinuxPlatform& linux;
    const platform::ListenerPlaces& places;
    const platform::ProtocolTable& protocols;
  };

  // Starts the shared thread, and that of the server that will be asked first.
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
  SettingsWorker::OnSharedThread giveThread(const std::string& server);

  const Environment environment_;
  std::vector<std::unique_ptr<Thread>> threads_;  // The first is the shared one.
  std::map<std::string, Thread*> threadOfServer_;
};

// Calls `ask` with clients that belong to the calling thread, any, and end with the call. If no
// descriptor is left, `ask` is not called.
void askSettingsOnThisThread(platform::LinuxPlatform& linux, const platform::ListenerPlaces& places,
                             const platform::ProtocolTable& protocols,
                             const std::function<void(const SettingsClientFactories&)>& ask);
