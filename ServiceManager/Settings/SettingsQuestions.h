#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Settings/SettingsSources.h"

// The parts of the platform that ask settings servers on a thread of their own.
struct SettingsWorker {
  // Runs work on that thread, one piece after the other.
  std::function<void(platform::RunLoop::Callback work)> perform;
  // For work on that thread only.
  VantorDistantObject::Environment objects;
  const SettingsClientFactories& factories;
};

// A settings server that has been asked.
enum class AskedSource {
  kMissing,  // there is no such server
  kAnswers,
  kHung,  // it did not answer the last question, or was not asked because it hung lately
};

// Asks the settings servers and the configuration server on behalf of the daemon. A server that
// hangs costs its time-outs on the worker's thread, and the main thread goes on. Answers come in
// the order of the questions, as callbacks on the main thread. Belongs to that thread.
class SettingsQuestions {
 public:
  struct Setting {
    std::optional<std::string> source;  // the prefix of its settings server, if it has one
    std::optional<std::string> key;     // without one, only the server's client is made
  };
  using Values = std::vector<platform::Value>;

  struct Environment {
    SettingsWorker worker;
    // Runs a callback on the main thread.
    std::function<void(platform::RunLoop::Callback callback)> onMain;
    // A settings server was started again. One call may stand for several restarts.
    std::function<void()> onRestart;
  };

  explicit SettingsQuestions(Environment environment);
  SettingsQuestions(const SettingsQuestions&) = delete;
  SettingsQuestions& operator=(const SettingsQuestions&) = delete;
  // Answers that have not come are dropped.
  ~SettingsQuestions();

  // The values of these settings, in their order; nil if there is none or its server can't be
  // reached. A value that stands for an object of the server counts as nil.
  void valuesOf(std::vector<Setting> settings, std::move_only_function<void(Values)> answer);

  // Makes the client of the configuration server, which posts the notification at its start.
  // Without a client, that server counts as down.
  void makePrimaryServiceClient(const char* server, const char* protocol,
                                const char* startNotification);
  void isPrimaryServiceUp(std::move_only_function<void(bool)> answer);

  // The configuration server has announced its start: it is called again even if it hung lately.
  void primaryServiceDidStart();
  // The starts of all servers may have been missed: each is called again, even if it hung lately.
  void forgetConnections();

  // The sources that have been asked.
  const std::map<std::string, AskedSource>& askedSources() const { return askedSources_; }
  bool isHung(const std::string& source) const;

 private:
  struct Clients;
  template <class Answer>
  void ask(std::move_only_function<Answer(Clients& clients)> question,
           std::move_only_function<void(Answer)> answer);

  const Environment environment_;
  const std::shared_ptr<int> isAlive_ = std::make_shared<int>();
  std::shared_ptr<Clients> clients_;  // the worker's
  std::map<std::string, AskedSource> askedSources_;
};
