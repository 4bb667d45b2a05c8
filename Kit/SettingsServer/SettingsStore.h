#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Kit/SettingsServer/SettingsFile.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// The limits of a client's data. Each is the largest value that is accepted.
struct SettingsLimits {
  static constexpr std::size_t kKeyBytes = 255;
  // One setting, key and value as they travel in a message.
  static constexpr std::size_t kSettingBytes = kKLXGlobalSettingsMaxSettingBytes;
  // All values of a domain, and again all of its defaults. Both together must still fit into one
  // message, and no value takes less than four bytes of the 100,000 that a message may have.
  static constexpr std::size_t kDomainBytes = std::size_t{192} * 1024;
  static constexpr std::size_t kDomainSettings = 1024;
  static constexpr std::size_t kBlobBytes = std::size_t{256} * 1024;
  static constexpr std::size_t kDomainBlobs = 64;
};

// The key for an error's text: in quotation marks, and cut if it is longer than a key may be.
std::string quotedKey(std::string_view key);

// The settings of all domains. A setting has a value, a default, or both, and then the value
// counts. Both are kept on the disk, because programs rely on a default that they have read as much
// as on a value. A completed change survives any end of the process, and a failed call changes
// nothing.
//
// Errors name the key and the domain. Not thread-safe; changes block for the disk.
class SettingsStore {
 public:
  // Called with each error of the file that made a setting be skipped: the first ones by name, then
  // the number of the others.
  using Warn = std::function<void(std::string_view)>;
  static constexpr std::size_t kMostNamed = 10;

  // Reads the settings of the file at `path`, see SettingsFile::open(). Single settings are skipped
  // if they can't be read or exceed a limit, also that of their domain.
  static platform::Result<std::unique_ptr<SettingsStore>> open(
      const std::string& path, const std::vector<std::string>& domains, const Warn& warn);

  // For a domain that open() was given:

  // Nil if the key has neither a value nor a default.
  platform::Value value(std::string_view domain, std::string_view key) const;
  // Whether the key has a default and no value.
  bool isDefault(std::string_view domain, std::string_view key) const;
  // All settings, by key.
  platform::Dictionary dictionaryRepresentation(std::string_view domain) const;
  // The number of each setting's latest change, counted over all domains and never falling.
  platform::Dictionary versions(std::string_view domain) const;

  // Gives the key a value. kInvalid for a key or a value that can't be kept, kExhausted above a
  // limit.
  platform::Result<void> set(std::string_view domain, std::string_view key,
                             const platform::Value& value);
  // Removes the values of these keys, also from the file if they were skipped at the start. Returns
  // the keys that had one.
  platform::Result<std::vector<std::string>> removeValues(std::string_view domain,
                                                          const std::vector<std::string>& keys);
  // Adds and replaces defaults: all of them or none. Returns the keys that read as another value
  // now.
  platform::Result<std::vector<std::string>> registerDefaults(std::string_view domain,
                                                              const platform::Dictionary& defaults);

  // Bytes kept apart from the settings.
  platform::Result<std::optional<platform::Data>> blob(std::string_view domain,
                                                       std::string_view key);
  platform::Result<void> persistBlob(std::string_view domain, std::string_view key,
                                     const platform::Data& bytes);
  platform::Result<void> deleteBlob(std::string_view domain, std::string_view key);
  platform::Result<std::vector<std::string>> blobKeys(std::string_view domain);

 private:
  struct Setting {
    platform::Value value;
    std::size_t bytes = 0;
    std::int64_t version = 0;
  };
  using Layer = std::map<std::string, Setting, std::less<>>;
  struct Domain {
    Layer defaults;
    Layer values;
  };

  explicit SettingsStore(SettingsFile file) : file_(std::move(file)) {}
  const Domain& domain(std::string_view name) const { return domains_.find(name)->second; }
  Domain& domain(std::string_view name) { return domains_.find(name)->second; }
  // Gives these keys values in one layer; all of them or none.
  platform::Result<void> put(std::string_view inDomain, SettingsLayer inLayer,
                             const platform::Dictionary& settings);
  static const Setting* find(const Domain& domain, std::string_view key);
  void readRow(const SettingsFile::Row& row, const Warn& warn);

  SettingsFile file_;
  std::map<std::string, Domain, std::less<>> domains_;
  std::int64_t changes_ = 0;
  bool hasLeftOut_ = false;  // the file has settings that were skipped
};
