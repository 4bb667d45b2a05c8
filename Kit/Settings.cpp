#include <algorithm>
#include <optional>
#include <utility>

#include <vantor/Settings.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Kit/ProgramParts.h"
#include "Kit/SettingsServer/SettingsServers.h"
#include "Kit/Values.h"
#include "Platform/Peers/PeerMessageRules.h"

namespace vantor {
namespace {

struct ServerNames {
  std::string server;
  std::optional<std::string> startNotification;
};

ServerNames namesOf(std::string_view domain) {
  for (const GlobalSettingsDomain& known : kGlobalSettingsDomains) {
    if (domain == known.prefix || domain == known.connectionName)
      return {known.connectionName, known.startNotification};
  }
  return {std::string(domain), std::string(domain) + kOwnDomainStartSuffix};
}

class SettingsObservation final : public Observation {
 public:
  using OnBus = platform::DistributedNotificationCenter::Observation;
  SettingsObservation(std::unique_ptr<OnBus> changes, std::unique_ptr<OnBus> returns)
      : changes_(std::move(changes)), returns_(std::move(returns)) {}

 private:
  const std::unique_ptr<OnBus> changes_;
  const std::unique_ptr<OnBus> returns_;
};

// 1 and true are equal, but not the same setting.
bool isSame(const Value& one, const Value& other) {
  return one.type() == other.type() && one.description() == other.description();
}

}  // namespace

struct SettingsParts {
  SettingsParts(ProgramParts& of, const ServerNames& names)
      : program(of),
        server(names.server),
        client(of.environment(), names.server, names.startNotification, nullptr) {}

  ProgramParts& program;
  const std::string server;
  KLXGlobalSettingsClient client;
};

Settings::Settings(Program& program, std::string_view domain)
    : parts_(std::make_unique<SettingsParts>(program.parts(), namesOf(domain))) {}
Settings::~Settings() = default;

Result<Value> Settings::get(std::string_view key) {
  const auto answer = ask(parts_->client, "objectForKey:", {key});
  if (!answer) return answer.error();
  return ValueAccess::from(*answer);
}

Result<Dictionary> Settings::all() {
  const auto answer = ask(parts_->client, "dictionaryRepresentation");
  if (!answer) return answer.error();
  return ValueAccess::from(*answer).dictionary().value_or(Dictionary());
}

Result<void> Settings::set(std::string_view key, const Value& value) {
  if (value.isNil()) return Error{ErrorCode::kInvalid, "a setting can't be nil"};
  const platform::Value wanted = ValueAccess::of(value);
  const auto bytes =
      platform::peerBodyBytes(platform::Array{platform::Dictionary{{std::string(key), wanted}}});
  if (!bytes) return errorOf(bytes.error());
  if (*bytes > kKLXGlobalSettingsMaxSettingBytes)
    return Error{ErrorCode::kExhausted, "the setting is too large"};
  const auto sent =
      ask(parts_->client, "setObject:forKey:sender:", {wanted, key, parts_->program.name});
  if (!sent) return sent.error();
  // The message has no answer.
  const auto now = get(key);
  if (!now) return now.error();
  if (isSame(*now, value)) return {};
  return Error{ErrorCode::kFailed, "the settings server has not kept the value; see its log"};
}

Result<void> Settings::remove(std::string_view key) {
  const auto sent = ask(parts_->client, "removeObjectForKey:sender:", {key, parts_->program.name});
  if (!sent) return sent.error();
  const auto now = get(key);  // The message has no answer.
  if (!now) return now.error();
  if (now->isNil()) return {};
  const auto isDefault = ask(parts_->client, "isDefault:", {key});
  if (!isDefault) return isDefault.error();
  if (*isDefault == platform::Value(true)) return {};
  return Error{ErrorCode::kFailed, "the settings server still has a value; see its log"};
}

Result<void> Settings::registerDefaults(const Dictionary& defaults) {
  const auto sent = ask(parts_->client, "registerDefaults:", {ValueAccess::of(Value(defaults))});
  if (!sent) return sent.error();
  const auto fence = ask(parts_->client, "isDefault:", {""});  // The message has no answer.
  if (!fence) return fence.error();
  return {};
}

std::unique_ptr<Observation> Settings::watch(std::function<void(const std::string& key)> handler) {
  platform::DistributedNotificationCenter& center = parts_->program.center();
  // Shared by the two observations.
  const auto call =
      std::make_shared<const std::function<void(const std::string&)>>(std::move(handler));
  auto changes = center.addObserver(kKLXGlobalSettingsDidChangeNotification, parts_->server,
                                    [call](const platform::DistributedNotification& posted) {
                                      const std::string* key =
                                          posted.userInfo[kKLXGlobalSettingsKeyModified].string();
                                      (*call)(key ? *key : std::string());
                                    });
  return std::make_unique<SettingsObservation>(std::move(changes),
                                               center.observeReturn([call] { (*call)({}); }));
}

}  // namespace vantor
