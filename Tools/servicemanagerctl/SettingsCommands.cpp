#include "Tools/servicemanagerctl/SettingsCommands.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>

#include <fmt/format.h>
#include <unistd.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Platform/Peers/PeerMessageRules.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;

constexpr char kSender[] = "servicemanagerctl";

const GlobalSettingsDomain* domainNamed(std::string_view name) {
  const auto found =
      std::ranges::find_if(kGlobalSettingsDomains, [&](const GlobalSettingsDomain& domain) {
        return name == domain.prefix || name == domain.connectionName;
      });
  return found == kGlobalSettingsDomains.end() ? nullptr : &*found;
}

std::string domainNames() {
  std::string names;
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains)
    names += (names.empty() ? "" : ", ") + std::string(domain.prefix);
  return names;
}

// 1 and true are equal values, but of different types.
bool isSame(const Value& one, const Value& other) {
  const auto real = one.real();
  const auto otherReal = other.real();
  if (real && otherReal && std::isnan(*real)) return std::isnan(*otherReal);
  return one.type() == other.type() && one == other;
}

}  // namespace

SettingsCommands::SettingsCommands(CLI::App& app)
    : settings_(app.add_subcommand("settings", "Look at the product's settings, and change them")),
      list_(settings_->add_subcommand("list", "All settings of a domain")),
      get_(settings_->add_subcommand("get", "One setting")),
      set_(settings_->add_subcommand("set", "Give a setting a value")),
      unset_(settings_->add_subcommand("unset", "Take a setting's value away; its default stays")) {
  settings_->require_subcommand(1);
  for (CLI::App* command : {list_, get_, set_, unset_}) {
    command->add_flag("--json", json_, "For programs");
    command->add_option("domain", domain_, "One of: " + domainNames())->required();
    if (command != list_) command->add_option("key", key_, "The setting's key")->required();
  }
  set_->add_option("value", value_, "The value; behind -- if it begins with a minus sign")
      ->required();
  set_->add_option("--type", type_,
                   "boolean, integer, real, number, string or data (in base 64). Without it, the "
                   "type that the setting has, else what the value looks like")
      ->check(CLI::IsMember({"boolean", "integer", "real", "number", "string", "data"}));
}

int SettingsCommands::run(const DaemonClient::Environment& environment) const {
  const auto act = [&]() -> Answer<int> {
    const GlobalSettingsDomain* domain = domainNamed(domain_);
    if (domain == nullptr) {
      return std::unexpected(Refusal{kExitNotUnderstood,
                                     fmt::format("there is no settings domain \"{}\"; there are {}",
                                                 abridged(domain_), domainNames())});
    }
    if (!list_->parsed() && key_.empty())
      return std::unexpected(Refusal{kExitNotUnderstood, "the key is empty"});
    const std::string name = fmt::format("the settings server of {}", domain->prefix);
    const BlockedCallProgress progress({.what = name + " to answer"});
    DaemonClient server(
        environment, domain->connectionName, kKLXGlobalSettingsProtocol,
        {.name = name, .statusCommand = "list", .whyNoAnswer = "it may be busy or stand still"});
    if (const auto connected = server.connect(); !connected)
      return std::unexpected(connected.error());
    if (list_->parsed()) return list(server);
    if (get_->parsed()) return get(server);
    if (set_->parsed()) return set(server);
    return unset(server);
  };
  const Answer<int> outcome = act();
  if (outcome) return *outcome;
  fail(outcome.error().text);
  return outcome.error().exitStatus;
}

Answer<int> SettingsCommands::list(DaemonClient& server) const {
  const auto all = server.ask("dictionaryRepresentation");
  if (!all) return std::unexpected(all.error());
  if (!all->dictionary()) {
    return std::unexpected(
        Refusal{kExitFailed, "the settings server answered with something else than settings"});
  }
  std::vector<SettingState> settings;
  for (const auto& [key, value] : *all->dictionary()) {
    const auto isDefault = server.ask("isDefault:", {key});
    if (!isDefault) return std::unexpected(isDefault.error());
    settings.push_back({key, value, *isDefault == Value(true)});
  }
  std::ranges::sort(settings, {}, &SettingState::key);
  print(json_ ? dumped(asJson(settings)) : asTable(settings, domain_, readerOf(STDOUT_FILENO)));
  return EXIT_SUCCESS;
}

Answer<SettingState> SettingsCommands::read(DaemonClient& server) const {
  auto value = server.ask("objectForKey:", {key_});
  if (!value) return std::unexpected(value.error());
  const auto isDefault = server.ask("isDefault:", {key_});
  if (!isDefault) return std::unexpected(isDefault.error());
  return SettingState{key_, std::move(*value), *isDefault == Value(true)};
}

void SettingsCommands::report(const SettingState& setting) const {
  print(json_ ? dumpedAnswer(asJson(setting)) : asSentence(setting, domain_));
}

Answer<int> SettingsCommands::get(DaemonClient& server) const {
  const auto setting = read(server);
  if (!setting) return std::unexpected(setting.error());
  if (setting->value.isNil()) {
    return std::unexpected(
        Refusal{kExitUnknownLabel, fmt::format("{} has no setting \"{}\"; \"servicemanagerctl "
                                               "settings list {}\" tells which there are",
                                               domain_, abridged(key_), domain_)});
  }
  if (json_) {
    report(*setting);
    return EXIT_SUCCESS;
  }
  const nlohmann::ordered_json value = jsonOf(setting->value);
  const std::string text =
      value.is_string() ? plain(value.get<std::string>()) : shown(setting->value);
  print(text + "\n");
  return EXIT_SUCCESS;
}

Answer<int> SettingsCommands::set(DaemonClient& server) const {
  const auto before = read(server);
  if (!before) return std::unexpected(before.error());
  const auto wanted =
      parseSetting(value_, type_.empty() ? std::nullopt : std::optional(type_), before->value);
  if (!wanted) {
    return std::unexpected(
        Refusal{kExitNotUnderstood,
                type_.empty() && !before->value.isNil()
                    ? fmt::format("{}; the setting is of that type now, and --type sets another",
                                  wanted.error())
                    : wanted.error()});
  }
  // The message has no answer, so the server could not report that it rejects the value.
  const auto bytes = peerBodyBytes(Array{Dictionary{{key_, *wanted}}});
  if (!bytes || *bytes > kKLXGlobalSettingsMaxSettingBytes) {
    return std::unexpected(Refusal{
        kExitFailed,
        fmt::format("the setting \"{}\" is too large: key and value may take {} bytes together",
                    abridged(key_), kKLXGlobalSettingsMaxSettingBytes)});
  }
  const auto sent = server.ask("setObject:forKey:sender:", {*wanted, key_, kSender});
  if (!sent) return std::unexpected(sent.error());
  // The message has no answer, so read back what the server holds now.
  const auto now = read(server);
  if (!now) return std::unexpected(now.error());
  report(*now);
  if (isSame(now->value, *wanted)) return EXIT_SUCCESS;
  return std::unexpected(Refusal{
      kExitFailed, "the server does not hold what was set; \"servicemanagerctl log\" tells why"});
}

Answer<int> SettingsCommands::unset(DaemonClient& server) const {
  const auto sent = server.ask("removeObjectForKey:sender:", {key_, kSender});
  if (!sent) return std::unexpected(sent.error());
  const auto now = read(server);
  if (!now) return std::unexpected(now.error());
  report(*now);
  if (now->value.isNil() || now->isDefault) return EXIT_SUCCESS;
  return std::unexpected(
      Refusal{kExitFailed, "the server still holds a value; \"servicemanagerctl log\" tells why"});
}
