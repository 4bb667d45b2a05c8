#include "Kit/SettingsServer/SettingsServer.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Kit/SettingsServer/SettingConversions.h"

using platform::Array;
using platform::Dictionary;
using platform::Error;
using platform::ErrorCode;
using platform::MessageResult;
using platform::NSException;
using platform::Result;
using platform::Value;

namespace {

std::string classOrNil(const Value& value) {
  return value.isNil() ? "nil" : std::string(className(value));
}

Error wrongArgument(std::string_view what, std::string_view expected, const Value& found) {
  return {ErrorCode::kInvalid, 0,
          std::string(what) + " is " + classOrNil(found) + ", not " + std::string(expected)};
}

Result<std::string> keyIn(const Value& argument) {
  if (const std::string* key = argument.string()) return *key;
  return std::unexpected(wrongArgument("the key", "a string", argument));
}

// These functions convert a setting for a getter.
Value asItIs(const Value& setting) { return setting; }
Value asArray(const Value& setting) { return setting.array() ? setting : Value(); }
Value asDictionary(const Value& setting) { return setting.dictionary() ? setting : Value(); }
Value asData(const Value& setting) { return setting.data() ? setting : Value(); }
Value asInteger(const Value& setting) { return settingAsInteger(setting); }
Value asDouble(const Value& setting) { return settingAsDouble(setting); }
Value asFloat(const Value& setting) {
  return static_cast<double>(static_cast<float>(settingAsDouble(setting)));
}
Value asBool(const Value& setting) { return settingAsBool(setting); }

// These functions convert an argument for a setter; nil if it has the wrong type.
Value keepAny(const Value& argument) { return argument; }
Value keepInteger(const Value& argument) { return argument.integer() ? argument : Value(); }
Value keepDouble(const Value& argument) {
  if (const auto integer = argument.integer()) return static_cast<double>(*integer);
  return argument.real() ? argument : Value();
}
Value keepFloat(const Value& argument) {
  const Value real = keepDouble(argument);
  return real.isNil() ? real : asFloat(real);
}
Value keepBool(const Value& argument) { return argument.boolean() ? argument : Value(); }

}  // namespace

struct SettingsServer::Method {
  std::string_view selector;
  Answer (SettingsServer::*perform)(const Arguments&);
};

SettingsServer::SettingsServer(ServedDomain domain, SettingsStore& store,
                               platform::DistributedNotificationCenter& center,
                               platform::RefusalLog& refusals)
    : domain_(std::move(domain)), store_(store), center_(center), refusals_(refusals) {}

MessageResult SettingsServer::receiveMessage(std::string_view selector, const Array& arguments) {
  using Self = SettingsServer;
  static constexpr Method kMethods[] = {
      {"registerDefaults:", &Self::registerDefaults},
      {"restoreDefaultsForKeys:sender:", &Self::restoreDefaults},
      {"dictionaryRepresentation", &Self::dictionaryRepresentation},
      {"versionDictionary", &Self::versionDictionary},
      {"defaultSubscription", &Self::defaultSubscription},
      {"objectForKey:", &Self::read<asItIs>},
      {"stringForKey:", &Self::read<settingAsString>},
      {"arrayForKey:", &Self::read<asArray>},
      {"dictionaryForKey:", &Self::read<asDictionary>},
      {"dataForKey:", &Self::read<asData>},
      {"integerForKey:", &Self::read<asInteger>},
      {"floatForKey:", &Self::read<asFloat>},
      {"doubleForKey:", &Self::read<asDouble>},
      {"boolForKey:", &Self::read<asBool>},
      {"setObject:forKey:sender:", &Self::set<keepAny>},
      {"setInteger:forKey:sender:", &Self::set<keepInteger>},
      {"setFloat:forKey:sender:", &Self::set<keepFloat>},
      {"setDouble:forKey:sender:", &Self::set<keepDouble>},
      {"setBool:forKey:sender:", &Self::set<keepBool>},
      {"removeObjectForKey:sender:", &Self::remove},
      {"isDefault:", &Self::isDefault},
      {"persistBlob:forKey:sender:", &Self::persistBlob},
      {"persistedBlobForKey:", &Self::persistedBlob},
      {"deletePersistedBlobForKey:", &Self::deletePersistedBlob},
      {"persistedBlobKeys", &Self::persistedBlobKeys},
  };
  const auto* method = std::ranges::find(kMethods, selector, &Method::selector);
  if (method == std::end(kMethods)) {
    return std::unexpected(NSException{
        platform::kNSInvalidArgumentException, "no such message: " + std::string(selector), {}});
  }
  auto answer = (this->*method->perform)(arguments);
  if (answer) return std::move(*answer);
  const std::string why = std::string(domain_.connectionName) + ": " + std::string(selector) +
                          " is refused: " + describe(answer.error());
  refusals_.write(why);
  if (method->perform == &Self::persistBlob) return false;
  return std::unexpected(NSException{platform::kNSInvalidArgumentException, why, {}});
}

void SettingsServer::announceStart() {
  center_.postNotificationName(domain_.startNotification, std::nullopt, {},
                               platform::NSNotificationPosting::kPostToAllSessions);
}

void SettingsServer::postChange(const std::string& key) {
  center_.postNotificationName(kKLXGlobalSettingsDidChangeNotification, domain_.connectionName,
                               Dictionary{{kKLXGlobalSettingsKeyModified, key}},
                               platform::NSNotificationPosting::kPostToAllSessions);
}

SettingsServer::Answer SettingsServer::registerDefaults(const Arguments& arguments) {
  const Dictionary* defaults = arguments[0].dictionary();
  if (!defaults)
    return std::unexpected(wrongArgument("what is registered", "a dictionary", arguments[0]));
  const auto changed = store_.registerDefaults(domain_.connectionName, *defaults);
  if (!changed) return std::unexpected(changed.error());
  for (const std::string& key : *changed) postChange(key);
  return Value();
}

SettingsServer::Answer SettingsServer::restoreDefaults(const Arguments& arguments) {
  const Array* keys = arguments[0].array();
  if (!keys) return std::unexpected(wrongArgument("what is restored", "an array", arguments[0]));
  std::vector<std::string> names;
  for (const Value& key : *keys) {
    auto name = keyIn(key);
    if (!name) return std::unexpected(name.error());
    names.push_back(std::move(*name));
  }
  return removeKeys(names);
}

SettingsServer::Answer SettingsServer::remove(const Arguments& arguments) {
  auto key = keyIn(arguments[0]);
  if (!key) return std::unexpected(key.error());
  return removeKeys({std::move(*key)});
}

SettingsServer::Answer SettingsServer::removeKeys(const std::vector<std::string>& keys) {
  const auto removed = store_.removeValues(domain_.connectionName, keys);
  if (!removed) return std::unexpected(removed.error());
  for (const std::string& key : *removed) postChange(key);
  return Value();
}

SettingsServer::Answer SettingsServer::dictionaryRepresentation(const Arguments&) {
  return Value(store_.dictionaryRepresentation(domain_.connectionName));
}

SettingsServer::Answer SettingsServer::versionDictionary(const Arguments&) {
  return Value(store_.versions(domain_.connectionName));
}

// The notification that a client observes to follow this domain's settings.
SettingsServer::Answer SettingsServer::defaultSubscription(const Arguments&) {
  return Value(Dictionary{{"Domain", domain_.connectionName},
                          {"StartNotification", domain_.startNotification},
                          {"ChangeNotification", kKLXGlobalSettingsDidChangeNotification},
                          {"ChangedKey", kKLXGlobalSettingsKeyModified}});
}

template <Value (*convert)(const Value&)>
SettingsServer::Answer SettingsServer::read(const Arguments& arguments) {
  const auto key = keyIn(arguments[0]);
  if (!key) return std::unexpected(key.error());
  return convert(store_.value(domain_.connectionName, *key));
}

template <Value (*convert)(const Value&)>
SettingsServer::Answer SettingsServer::set(const Arguments& arguments) {
  const auto key = keyIn(arguments[1]);
  if (!key) return std::unexpected(key.error());
  const Value value = convert(arguments[0]);
  if (value.isNil()) {
    return std::unexpected(wrongArgument("the value for " + quotedKey(*key),
                                         "of the kind that this message sets", arguments[0]));
  }
  if (auto done = store_.set(domain_.connectionName, *key, value); !done)
    return std::unexpected(done.error());
  postChange(*key);
  return Value();
}

SettingsServer::Answer SettingsServer::isDefault(const Arguments& arguments) {
  const auto key = keyIn(arguments[0]);
  if (!key) return std::unexpected(key.error());
  return Value(store_.isDefault(domain_.connectionName, *key));
}

SettingsServer::Answer SettingsServer::persistBlob(const Arguments& arguments) {
  const auto key = keyIn(arguments[1]);
  if (!key) return std::unexpected(key.error());
  const platform::Data* bytes = arguments[0].data();
  if (!bytes)
    return std::unexpected(wrongArgument("the blob " + quotedKey(*key), "data", arguments[0]));
  if (auto done = store_.persistBlob(domain_.connectionName, *key, *bytes); !done)
    return std::unexpected(done.error());
  return Value(true);
}

SettingsServer::Answer SettingsServer::persistedBlob(const Arguments& arguments) {
  const auto key = keyIn(arguments[0]);
  if (!key) return std::unexpected(key.error());
  auto bytes = store_.blob(domain_.connectionName, *key);
  if (!bytes) return std::unexpected(bytes.error());
  return *bytes ? Value(std::move(**bytes)) : Value();
}

SettingsServer::Answer SettingsServer::deletePersistedBlob(const Arguments& arguments) {
  const auto key = keyIn(arguments[0]);
  if (!key) return std::unexpected(key.error());
  if (auto done = store_.deleteBlob(domain_.connectionName, *key); !done)
    return std::unexpected(done.error());
  return Value();
}

SettingsServer::Answer SettingsServer::persistedBlobKeys(const Arguments&) {
  const auto keys = store_.blobKeys(domain_.connectionName);
  if (!keys) return std::unexpected(keys.error());
  return Value(Array(keys->begin(), keys->end()));
}
