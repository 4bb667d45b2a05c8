#include "ServiceManager/Settings/SettingsQuestions.h"

#include <atomic>
#include <utility>

using namespace platform;

// The client of one server, on that server's thread.
struct SettingsQuestions::Client final : KLXGlobalSettingsClientDelegate {
  Client(const Environment& environment, std::weak_ptr<int> isAlive)
      : onMain(environment.onMain),
        onRestart(environment.onRestart),
        ownerIsAlive(std::move(isAlive)) {}

  // The main thread may be busy while the server announces one start after the other.
  void globalSettingsServerDidRestart(SettingsClient& /*client*/) override {
    if (isRestartPosted->exchange(true)) return;
    onMain([onRestart = onRestart, ownerIsAlive = ownerIsAlive, isPosted = isRestartPosted] {
      *isPosted = false;
      if (!ownerIsAlive.expired()) onRestart();
    });
  }

  SettingsClient* settings(const std::string& source, const SettingsParts& parts) {
    if (!sources) sources.emplace(parts.factories, *this);
    return sources->configurationWithSelectorPrefix(source);
  }
  void forgetConnection() {
    if (primaryService) primaryService->serverDidStart({});
    if (sources) sources->forgetConnections();
  }

  const std::function<void(RunLoop::Callback)> onMain;
  const std::function<void()> onRestart;
  const std::weak_ptr<int> ownerIsAlive;
  // Shared with the posted callback.
  const std::shared_ptr<std::atomic<bool>> isRestartPosted =
      std::make_shared<std::atomic<bool>>(false);
  std::atomic<bool> willForget = false;  // it is posted to the server's thread
  std::optional<SettingsSources> sources;
  std::unique_ptr<VantorDistantObject> primaryService;
};

// The answers of several servers to one question, as far as they have come. Belongs to the main
// thread.
struct SettingsQuestions::Answers {
  std::vector<Setting> settings;
  Values values;
  std::size_t missing = 0;  // servers
  std::move_only_function<void(Values)> answer;
};

SettingsQuestions::SettingsQuestions(Environment environment)
    : environment_(std::move(environment)) {}

// Each client ends on its server's thread.
SettingsQuestions::~SettingsQuestions() {
  for (auto& [server, client] : clients_) {
    environment_.worker.perform(server, [client = std::move(client)](const SettingsParts&) {});
  }
}

const std::shared_ptr<SettingsQuestions::Client>& SettingsQuestions::clientOf(
    const std::string& server) {
  auto& client = clients_[server];
  if (!client) client = std::make_shared<Client>(environment_, isAlive_);
  return client;
}

// While a question is on the shared thread, its answer could come after that of a later question.
// The client ends on the thread to which it belongs.
void SettingsQuestions::giveThread(const std::string& server) {
  const auto client = clients_.find(server);
  if (!environment_.worker.giveThread || client == clients_.end() || unanswered_[server] > 0)
    return;
  const auto onSharedThread = environment_.worker.giveThread(server);
  if (!onSharedThread) return;
  auto last = std::exchange(client->second, std::make_shared<Client>(environment_, isAlive_));
  onSharedThread([last = std::move(last)](const SettingsParts&) {});
}

template <class Answer>
void SettingsQuestions::ask(
    const std::string& server,
    std::move_only_function<Answer(Client& client, const SettingsParts& parts)> question,
    std::move_only_function<void(Answer)> answer) {
  giveThread(server);
  ++unanswered_[server];
  environment_.worker.perform(
      server, [this, server, client = clientOf(server), isAlive = std::weak_ptr(isAlive_),
               onMain = environment_.onMain, question = std::move(question),
               answer = std::move(answer)](const SettingsParts& parts) mutable {
        onMain([this, server, isAlive, answer = std::move(answer),
                result = question(*client, parts)]() mutable {
          if (isAlive.expired()) return;
          --unanswered_[server];
          answer(std::move(result));
        });
      });
}

void SettingsQuestions::valuesOf(std::vector<Setting> settings,
                                 std::move_only_function<void(Values)> answer) {
  std::map<std::string, std::vector<std::size_t>> placesOfSources;
  for (std::size_t place = 0; place < settings.size(); ++place) {
    if (settings[place].source) placesOfSources[*settings[place].source].push_back(place);
  }
  const std::size_t count = settings.size();
  const auto answers = std::make_shared<Answers>(
      Answers{std::move(settings), Values(count), placesOfSources.size(), std::move(answer)});
  if (placesOfSources.empty()) {
    return environment_.onMain([answers, isAlive = std::weak_ptr(isAlive_)] {
      if (!isAlive.expired()) answers->answer(std::move(answers->values));
    });
  }
  for (auto& [source, places] : placesOfSources) askSource(source, std::move(places), answers);
}

void SettingsQuestions::askSource(const std::string& source, std::vector<std::size_t> places,
                                  const std::shared_ptr<Answers>& answers) {
  struct Found {
    Values values;
    std::vector<bool> areAnswered;
    AskedSource state = AskedSource::kMissing;
  };
  std::vector<std::optional<std::string>> keys;
  for (const std::size_t place : places) keys.push_back(answers->settings[place].key);
  ask<Found>(
      source,
      [source, keys = std::move(keys)](Client& server, const SettingsParts& parts) {
        Found found;
        SettingsClient* const client = server.settings(source, parts);
        for (const auto& key : keys) {
          Value value = client && key ? client->objectForKey(*key) : Value();
          // An object of the server belongs to the connection, and so to the server's thread.
          found.values.push_back(value.remoteObject() ? Value() : std::move(value));
          found.areAnswered.push_back(client && key && client->hasAnswered());
        }
        if (client) {
          found.state = client->isServerHung() ? AskedSource::kHung : AskedSource::kAnswers;
        }
        return found;
      },
      [this, source, places = std::move(places), answers](Found found) {
        askedSources_[source] = found.state;
        for (std::size_t i = 0; i < places.size(); ++i) {
          const auto& key = answers->settings[places[i]].key;
          if (key) note(source, *key, found.values[i], found.areAnswered[i]);
          answers->values[places[i]] = std::move(found.values[i]);
        }
        if (--answers->missing == 0) answers->answer(std::move(answers->values));
      });
}

void SettingsQuestions::note(const std::string& source, const std::string& key, const Value& value,
                             bool isAnswered) {
  if (isAnswered) {
    lastValues_.insert_or_assign({source, key}, LastValue{value, environment_.now()});
  } else {
    lastValues_.erase({source, key});
  }
}

bool SettingsQuestions::isHung(const std::string& source) const {
  const auto asked = askedSources_.find(source);
  return asked != askedSources_.end() && asked->second == AskedSource::kHung;
}

void SettingsQuestions::makePrimaryServiceClient(const char* server, const char* protocol,
                                                 const char* startNotification) {
  primaryServer_ = server;
  environment_.worker.perform(primaryServer_,
                              [=, client = clientOf(primaryServer_)](const SettingsParts& parts) {
                                client->primaryService = std::make_unique<VantorDistantObject>(
                                    parts.objects, server, protocol, startNotification);
                              });
}

void SettingsQuestions::isPrimaryServiceUp(std::move_only_function<void(bool)> answer) {
  ask<bool>(
      primaryServer_,
      [](Client& client, const SettingsParts&) {
        return client.primaryService &&
               client.primaryService->sendMessage("isServerUp") == Value(true);
      },
      std::move(answer));
}

void SettingsQuestions::primaryServiceDidStart() {
  const auto client = clients_.find(primaryServer_);
  if (client == clients_.end()) return;
  environment_.worker.perform(primaryServer_, [client = client->second](const SettingsParts&) {
    if (client->primaryService) client->primaryService->serverDidStart({});
  });
}

void SettingsQuestions::forgetConnections() {
  for (const auto& [server, client] : clients_) {
    if (client->willForget.exchange(true)) continue;
    environment_.worker.perform(server, [client = client](const SettingsParts&) {
      client->willForget = false;
      client->forgetConnection();
    });
  }
}
