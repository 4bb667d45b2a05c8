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

#include "Examples/DemoProduct/Settings/SettingsFile.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// What a client can make the server keep. Each is the largest that is accepted.
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

// The key as an error's text names it: in quotation marks, and cut where it is longer than a key
// may be.
std::string quotedKey(std::string_view key);

// The settings of all domains. A setting has a value, a default, or both, and then the value
// counts. Both are kept on the disk: a default that somebody has read is as much relied on as a
// value. What a call has changed outlives the process, however it ends, and a call that fails has
// changed nothing.
//
// Errors name the key and the domain. Not for several threads; changes block as long as the disk
// does.
class SettingsStore {
 public:
  // Whoever is told of what was wrong with the file and was left out: so many settings by name, and
  // how many more there are.
  using Warn = std::function<void(std::string_view)>;
  static constexpr std::size_t kMostNamed = 10;

  // The settings that the file at `path` holds, see SettingsFile::open(). Single settings that
  // can't be read or are over a limit, their domain's included, are left out.
  static platform::Result<std::unique_ptr<SettingsStore>> open(
      const std::string& path, const std::vector<std::string>& domains, const Warn& warn);

  // Of a domain that open() was given.

  // Nil where the key has neither a value nor a default.
  platform::Value value(std::string_view domain, std::string_view key) const;
  // Whether the key has a default and no value.
  bool isDefault(std::string_view domain, std::string_view key) const;
  // All settings, by key.
  platform::Dictionary dictionaryRepresentation(std::string_view domain) const;
  // For each setting the number of its latest change, counted over all domains and never falling.
  platform::Dictionary versions(std::string_view domain) const;

  // Gives the key a value. kInvalid for a key or a value that can't be kept, kExhausted over a
  // limit.
  platform::Result<void> set(std::string_view domain, std::string_view key,
                             const platform::Value& value);
  // Takes the values of these keys away, also from the file where they were left out at the start.
  // Returns the keys that had one.
  platform::Result<std::vector<std::string>> removeValues(std::string_view domain,
                                                          const std::vector<std::string>& keys);
  // Adds defaults, and replaces those that there are. All of them or none. Returns the keys by
  // which another value than before is read now.
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
  bool hasLeftOut_ = false;  // The file has settings that are not held here.
};
