#include "ServiceManager/Settings/SettingsQuestions.h"

#include <atomic>
#include <utility>

using namespace platform;

// The clients of the servers, on the worker's thread.
struct SettingsQuestions::Clients final : KLXGlobalSettingsClientDelegate {
  explicit Clients(const Environment& environment, std::weak_ptr<int> isAlive)
      : onMain(environment.onMain),
        onRestart(environment.onRestart),
        ownerIsAlive(std::move(isAlive)),
        sources(environment.worker.factories, *this) {}

  // The main thread may be busy while servers announce one start after the other.
  void globalSettingsServerDidRestart(SettingsClient& /*client*/) override {
    if (isRestartPosted->exchange(true)) return;
    onMain([onRestart = onRestart, ownerIsAlive = ownerIsAlive, isPosted = isRestartPosted] {
      *isPosted = false;
      if (!ownerIsAlive.expired()) onRestart();
    });
  }

  const std::function<void(RunLoop::Callback)> onMain;
  const std::function<void()> onRestart;
  const std::weak_ptr<int> ownerIsAlive;
  // Shared with the posted callback.
  const std::shared_ptr<std::atomic<bool>> isRestartPosted =
      std::make_shared<std::atomic<bool>>(false);
  std::atomic<bool> willForget = false;  // it is posted to the worker
  SettingsSources sources;
  std::unique_ptr<VantorDistantObject> primaryService;
};

SettingsQuestions::SettingsQuestions(Environment environment)
    : environment_(std::move(environment)),
      clients_(std::make_shared<Clients>(environment_, isAlive_)) {}

// The clients belong to the worker, so they end there.
SettingsQuestions::~SettingsQuestions() {
  environment_.worker.perform([clients = std::move(clients_)] {});
}

template <class Answer>
void SettingsQuestions::ask(std::move_only_function<Answer(Clients& clients)> question,
                            std::move_only_function<void(Answer)> answer) {
  environment_.worker.perform([clients = clients_, isAlive = std::weak_ptr(isAlive_),
                               onMain = environment_.onMain, question = std::move(question),
                               answer = std::move(answer)]() mutable {
    onMain([isAlive, answer = std::move(answer), result = question(*clients)]() mutable {
      if (!isAlive.expired()) answer(std::move(result));
    });
  });
}

void SettingsQuestions::valuesOf(std::vector<Setting> settings,
                                 std::move_only_function<void(Values)> answer) {
  struct Found {
    Values values;
    std::map<std::string, AskedSource> sources;
  };
  ask<Found>(
      [settings = std::move(settings)](Clients& clients) {
        Found found;
        for (const Setting& setting : settings) {
          SettingsClient* client = nullptr;
          if (setting.source) {
            client = clients.sources.configurationWithSelectorPrefix(*setting.source);
            found.sources.emplace(*setting.source, AskedSource::kMissing);
          }
          Value value = client && setting.key ? client->objectForKey(*setting.key) : Value();
          if (client) {
            found.sources[*setting.source] =
                client->isServerHung() ? AskedSource::kHung : AskedSource::kAnswers;
          }
          // An object of the server belongs to the connection, and so to the worker.
          found.values.push_back(value.remoteObject() ? Value() : std::move(value));
        }
        return found;
      },
      [this, answer = std::move(answer)](Found found) mutable {
        for (const auto& [source, state] : found.sources) askedSources_[source] = state;
        answer(std::move(found.values));
      });
}

bool SettingsQuestions::isHung(const std::string& source) const {
  const auto asked = askedSources_.find(source);
  return asked != askedSources_.end() && asked->second == AskedSource::kHung;
}

void SettingsQuestions::makePrimaryServiceClient(const char* server, const char* protocol,
                                                 const char* startNotification) {
  environment_.worker.perform([=, clients = clients_, objects = environment_.worker.objects] {
    clients->primaryService =
        std::make_unique<VantorDistantObject>(objects, server, protocol, startNotification);
  });
}

void SettingsQuestions::isPrimaryServiceUp(std::move_only_function<void(bool)> answer) {
  ask<bool>(
      [](Clients& clients) {
        return clients.primaryService &&
               clients.primaryService->sendMessage("isServerUp") == Value(true);
      },
      std::move(answer));
}

void SettingsQuestions::primaryServiceDidStart() {
  environment_.worker.perform([clients = clients_] {
    if (clients->primaryService) clients->primaryService->serverDidStart({});
  });
}

void SettingsQuestions::forgetConnections() {
  if (clients_->willForget.exchange(true)) return;
  environment_.worker.perform([clients = clients_] {
    clients->willForget = false;
    if (clients->primaryService) clients->primaryService->serverDidStart({});
    clients->sources.forgetConnections();
  });
}
