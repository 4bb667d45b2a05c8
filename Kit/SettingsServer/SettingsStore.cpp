#include "Kit/SettingsServer/SettingsStore.h"

#include <algorithm>
#include <utility>

#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Texts/Utf8.h"

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::Value;

namespace {

Error refusal(ErrorCode code, std::string_view domain, std::string_view key,
              const std::string& why) {
  return {code, 0, quotedKey(key) + " of " + std::string(domain) + ": " + why};
}

Error tooMuch(std::string_view domain, std::string_view key, const std::string& what,
              std::size_t limit) {
  return refusal(ErrorCode::kExhausted, domain, key, what + std::to_string(limit));
}

Result<void> checkKey(std::string_view domain, std::string_view key) {
  if (key.empty()) return std::unexpected(refusal(ErrorCode::kInvalid, domain, key, "no key"));
  if (key.size() > SettingsLimits::kKeyBytes) {
    return std::unexpected(
        tooMuch(domain, key, "its key has " + std::to_string(key.size()) + " bytes, the most are ",
                SettingsLimits::kKeyBytes));
  }
  return {};
}

// The size of a setting in a message.
Result<std::size_t> travellingBytes(std::string_view domain, std::string_view key,
                                    const Value& value) {
  const auto bytes = platform::peerBodyBytes(Array{Dictionary{{std::string(key), value}}});
  if (!bytes)
    return std::unexpected(refusal(bytes.error().code, domain, key, describe(bytes.error())));
  if (*bytes <= SettingsLimits::kSettingBytes) return *bytes;
  return std::unexpected(tooMuch(domain, key,
                                 "takes " + std::to_string(*bytes) + " bytes, the most are ",
                                 SettingsLimits::kSettingBytes));
}

// Compares types, too: 1 and true are equal but not the same.
bool areTheSame(const Value& one, const Value& other) {
  const auto list = platform::writePropertyList(one, platform::PropertyListFormat::kBinary);
  const auto otherList = platform::writePropertyList(other, platform::PropertyListFormat::kBinary);
  return list && otherList && *list == *otherList;
}

// The size of all settings of a layer in messages.
template <typename Layer>
std::size_t travellingBytes(const Layer& layer) {
  std::size_t total = 0;
  for (const auto& [key, setting] : layer) total += setting.bytes;
  return total;
}

}  // namespace

std::string quotedKey(std::string_view key) {
  if (key.size() <= SettingsLimits::kKeyBytes) return "\"" + std::string(key) + "\"";
  return "\"" + std::string(platform::cutAtCharacter(key, SettingsLimits::kKeyBytes)) + "...\"";
}

const SettingsStore::Setting* SettingsStore::find(const Domain& domain, std::string_view key) {
  if (const auto found = domain.values.find(key); found != domain.values.end())
    return &found->second;
  const auto found = domain.defaults.find(key);
  return found == domain.defaults.end() ? nullptr : &found->second;
}

Result<std::unique_ptr<SettingsStore>> SettingsStore::open(const std::string& path,
                                                           const std::vector<std::string>& domains,
                                                           const Warn& warn) {
  auto file = SettingsFile::open(path, warn);
  if (!file) return std::unexpected(file.error());
  std::unique_ptr<SettingsStore> store(new SettingsStore(std::move(*file)));
  for (const std::string& name : domains) store->domains_[name];
  const auto changes = store->file_.changes();
  if (!changes) return std::unexpected(changes.error());
  store->changes_ = *changes;
  std::size_t leftOut = 0;
  const auto read = store->file_.read([&](const SettingsFile::Row& row) {
    store->readRow(row, [&](std::string_view warning) {
      store->hasLeftOut_ = true;
      if (++leftOut <= kMostNamed) warn(warning);
    });
  });
  if (!read) return std::unexpected(read.error());
  // A crowded file must not fill the log.
  if (leftOut > kMostNamed)
    warn(path + ": " + std::to_string(leftOut - kMostNamed) + " more settings are left out");
  return store;
}

void SettingsStore::readRow(const SettingsFile::Row& row, const Warn& warn) {
  const auto known = domains_.find(row.domain);
  if (known == domains_.end()) return;  // Another version knows this domain; keep the row.
  const auto value = platform::readPropertyList(*row.value, "the stored value");
  const auto named = checkKey(row.domain, row.key);
  const auto bytes = value && named ? travellingBytes(row.domain, row.key, *value)
                                    : Result<std::size_t>(std::unexpected(Error{}));
  if (!value || !named || !bytes) {
    warn(describe(!value
                      ? refusal(ErrorCode::kInvalid, row.domain, row.key, describe(value.error()))
                  : !named ? named.error()
                           : bytes.error()) +
         "; it is left out");
    return;
  }
  Layer& layer =
      row.layer == SettingsLayer::kDefaults ? known->second.defaults : known->second.values;
  // Another program put it there; so many settings would not fit into a message.
  if (layer.size() >= SettingsLimits::kDomainSettings ||
      travellingBytes(layer) + *bytes > SettingsLimits::kDomainBytes) {
    warn(describe(refusal(ErrorCode::kExhausted, row.domain, row.key,
                          "the domain holds as much as it may; it is left out")));
    return;
  }
  layer[row.key] = {*value, *bytes, row.version};
}

Value SettingsStore::value(std::string_view ofDomain, std::string_view key) const {
  const Setting* setting = find(domain(ofDomain), key);
  return setting ? setting->value : Value();
}

bool SettingsStore::isDefault(std::string_view ofDomain, std::string_view key) const {
  const Domain& held = domain(ofDomain);
  return held.defaults.contains(key) && !held.values.contains(key);
}

Dictionary SettingsStore::dictionaryRepresentation(std::string_view ofDomain) const {
  const Domain& held = domain(ofDomain);
  Dictionary all;
  for (const auto& [key, setting] : held.defaults) all.set(key, setting.value);
  for (const auto& [key, setting] : held.values) all.set(key, setting.value);
  return all;
}

Dictionary SettingsStore::versions(std::string_view ofDomain) const {
  const Domain& held = domain(ofDomain);
  Dictionary all;
  for (const auto& [key, setting] : held.defaults) all.set(key, setting.version);
  for (const auto& [key, setting] : held.values) all.set(key, setting.version);
  return all;
}

Result<void> SettingsStore::set(std::string_view inDomain, std::string_view key,
                                const Value& value) {
  // A dictionary would hold the null marker instead.
  if (value.isNil())
    return std::unexpected(refusal(ErrorCode::kInvalid, inDomain, key, "there is no value"));
  return put(inDomain, SettingsLayer::kValues, Dictionary{{std::string(key), value}});
}

Result<void> SettingsStore::put(std::string_view inDomain, SettingsLayer inLayer,
                                const Dictionary& settings) {
  Domain& held = domain(inDomain);
  Layer& layer = inLayer == SettingsLayer::kDefaults ? held.defaults : held.values;
  std::size_t count = layer.size();
  std::size_t total = travellingBytes(layer);
  std::vector<SettingsFile::Row> rows;
  Layer added;
  for (const auto& [key, value] : settings) {
    if (auto named = checkKey(inDomain, key); !named) return named;
    const auto bytes = travellingBytes(inDomain, key, value);
    if (!bytes) return std::unexpected(bytes.error());
    auto list = platform::writePropertyList(value, platform::PropertyListFormat::kBinary);
    if (!list) {
      return std::unexpected(refusal(list.error().code, inDomain, key, describe(list.error())));
    }
    const auto old = layer.find(key);
    if (old == layer.end() && ++count > SettingsLimits::kDomainSettings) {
      return std::unexpected(tooMuch(inDomain, key, "the most settings that a domain may have are ",
                                     SettingsLimits::kDomainSettings));
    }
    total += *bytes - (old == layer.end() ? 0 : old->second.bytes);
    if (total > SettingsLimits::kDomainBytes) {
      return std::unexpected(tooMuch(inDomain, key,
                                     "the most bytes that a domain's settings may take are ",
                                     SettingsLimits::kDomainBytes));
    }
    rows.push_back({std::string(inDomain), inLayer, key, std::move(*list), changes_ + 1});
    added[key] = {value, *bytes, changes_ + 1};
  }
  if (auto written = file_.write(rows, changes_ + 1); !written) return written;
  ++changes_;
  for (auto& [key, setting] : added) layer[key] = std::move(setting);
  return {};
}

Result<std::vector<std::string>> SettingsStore::removeValues(std::string_view inDomain,
                                                             const std::vector<std::string>& keys) {
  Domain& held = domain(inDomain);
  std::vector<std::string> removed;
  std::vector<SettingsFile::Row> rows;
  const auto add = [&](SettingsLayer layer, const std::string& key, std::optional<Data> value) {
    rows.push_back({std::string(inDomain), layer, key, std::move(value), changes_ + 1});
  };
  for (const std::string& key : keys) {
    if (std::ranges::find(removed, key) != removed.end()) continue;
    if (!held.values.contains(key)) {
      // A setting that was skipped at the start would reappear after a later start with room for
      // it.
      if (hasLeftOut_) add(SettingsLayer::kValues, key, std::nullopt);
      continue;
    }
    removed.push_back(key);
    add(SettingsLayer::kValues, key, std::nullopt);
    // The default is read from now on, so give it the number of this change.
    if (const auto below = held.defaults.find(key); below != held.defaults.end()) {
      auto list =
          platform::writePropertyList(below->second.value, platform::PropertyListFormat::kBinary);
      if (!list) return std::unexpected(list.error());
      add(SettingsLayer::kDefaults, key, std::move(*list));
    }
  }
  if (rows.empty()) return removed;
  const std::int64_t changes = removed.empty() ? changes_ : changes_ + 1;
  if (auto written = file_.write(rows, changes); !written) return std::unexpected(written.error());
  changes_ = changes;
  for (const std::string& key : removed) {
    held.values.erase(key);
    if (const auto below = held.defaults.find(key); below != held.defaults.end())
      below->second.version = changes_;
  }
  return removed;
}

Result<std::vector<std::string>> SettingsStore::registerDefaults(std::string_view inDomain,
                                                                 const Dictionary& defaults) {
  const Domain& held = domain(inDomain);
  // Programs register their defaults at each start; known defaults are no change.
  Dictionary news;
  std::vector<std::string> changed;
  for (const auto& [key, value] : defaults) {
    const auto old = held.defaults.find(key);
    if (old != held.defaults.end() && areTheSame(old->second.value, value)) continue;
    news.set(key, value);
    if (!held.values.contains(key)) changed.push_back(key);
  }
  if (news.empty()) return changed;
  if (auto done = put(inDomain, SettingsLayer::kDefaults, news); !done)
    return std::unexpected(done.error());
  return changed;
}

Result<std::optional<Data>> SettingsStore::blob(std::string_view ofDomain, std::string_view key) {
  return file_.blob(ofDomain, key);
}

Result<void> SettingsStore::persistBlob(std::string_view inDomain, std::string_view key,
                                        const Data& bytes) {
  if (auto named = checkKey(inDomain, key); !named) return named;
  if (bytes.size() > SettingsLimits::kBlobBytes) {
    return std::unexpected(tooMuch(
        inDomain, key, "the blob has " + std::to_string(bytes.size()) + " bytes, the most are ",
        SettingsLimits::kBlobBytes));
  }
  const auto keys = blobKeys(inDomain);
  if (!keys) return std::unexpected(keys.error());
  if (keys->size() >= SettingsLimits::kDomainBlobs && std::ranges::count(*keys, key) == 0) {
    return std::unexpected(tooMuch(inDomain, key, "the most blobs that a domain may have are ",
                                   SettingsLimits::kDomainBlobs));
  }
  return file_.writeBlob(inDomain, key, bytes);
}

Result<void> SettingsStore::deleteBlob(std::string_view inDomain, std::string_view key) {
  return file_.removeBlob(inDomain, key);
}

Result<std::vector<std::string>> SettingsStore::blobKeys(std::string_view ofDomain) {
  return file_.blobKeys(ofDomain);
}
