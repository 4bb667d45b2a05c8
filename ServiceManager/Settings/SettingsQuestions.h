#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Settings/SettingsSources.h"

// The parts of the platform that ask settings servers on one thread.
struct SettingsParts {
  VantorDistantObject::Environment objects;
  const SettingsClientFactories& factories;
};

// Asks settings servers on threads that may wait for them.
struct SettingsWorker {
  using Work = std::move_only_function<void(const SettingsParts& parts)>;
  // Runs work on the thread of this server, one piece after the other. The parts belong to that
  // thread, and are the same for all work on the server until it gets another thread.
  std::function<void(const std::string& server, Work work)> perform;
  // If this server shares a thread because there was no other, and there is one now, gives it that
  // for all further work. Then the answer runs work on the shared thread; else it is empty. May be
  // empty itself.
  using OnSharedThread = std::function<void(Work work)>;
  std::function<OnSharedThread(const std::string& server)> giveThread = {};
};

// A settings server that has been asked.
enum class AskedSource {
  kMissing,  // there is no such server
  kAnswers,
  kHung,  // it did not answer the last question, or was not asked because it hung lately
};

// Asks the settings servers and the configuration server on behalf of the daemon. Each server has a
// thread, so a hung server delays only the answers that need it, and the main thread goes on.
// Answers come as callbacks on the main thread, those of one server in the order of the questions.
// Belongs to that thread.
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
    std::function<platform::Instant()> now;
    // A settings server was started again. One call may stand for several restarts of it.
    std::function<void()> onRestart;
  };

  // The values that servers have told an evaluation last, by source and key. A setting that its
  // server does not have is nil. If the server did not answer, the setting has no entry.
  struct LastValue {
    platform::Value value;
    platform::Instant at;
  };
  using LastValues = std::map<std::pair<std::string, std::string>, LastValue>;

  explicit SettingsQuestions(Environment environment);
  SettingsQuestions(const SettingsQuestions&) = delete;
  SettingsQuestions& operator=(const SettingsQuestions&) = delete;
  // Answers that have not come are dropped.
  ~SettingsQuestions();

  // The values of these settings, in their order, when all their servers have answered; nil if
  // there is none or its server can't be reached. A value that stands for an object of the server
  // counts as nil.
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
  const LastValues& lastValues() const { return lastValues_; }

 private:
  struct Client;
  struct Answers;
  const std::shared_ptr<Client>& clientOf(const std::string& server);
  void giveThread(const std::string& server);
  template <class Answer>
  void ask(const std::string& server,
           std::move_only_function<Answer(Client& client, const SettingsParts& parts)> question,
           std::move_only_function<void(Answer)> answer);
  void askSource(const std::string& source, std::vector<std::size_t> places,
                 const std::shared_ptr<Answers>& answers);
  void note(const std::string& source, const std::string& key, const platform::Value& value,
            bool isAnswered);

  const Environment environment_;
  const std::shared_ptr<int> isAlive_ = std::make_shared<int>();
  // By server. Each client belongs to its server's thread.
  std::map<std::string, std::shared_ptr<Client>> clients_;
  std::map<std::string, std::size_t> unanswered_;  // questions, by server
  std::string primaryServer_;
  std::map<std::string, AskedSource> askedSources_;
  LastValues lastValues_;
};
