#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <vantor/Api.h>
#include <vantor/Program.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {

struct SettingsParts;

// The settings of one domain, which its server keeps. The domains of the product are "update",
// "common", "deviceControl", "appControl", "cmx", "heartbeat", "ntp" and "webControl"; any other
// name is that of a server of one's own.
//
// Each function but watch() asks the server and blocks until that has answered: 10 s at most, and 5
// s more to connect. A server that has not answered is not asked again for 30 s, or until it
// announces its start: kNotFound.
class VANTOR_KIT_API Settings {
 public:
  // The program outlives this.
  Settings(Program& program, std::string_view domain);
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;
  ~Settings();

  // The setting's value, or else its default, or else nil.
  Result<Value> get(std::string_view key);
  // All settings of the domain, by key.
  Result<Dictionary> all();

  // Gives the setting a value: kInvalid for nil. Key and value together have 64 KiB at most. Reads
  // it back, and fails with kFailed if the server has not kept it; its log says why.
  Result<void> set(std::string_view key, const Value& value);
  // Removes the value, so that the default counts.
  Result<void> remove(std::string_view key);
  // Registers defaults. A default of the same key is replaced; values stay.
  Result<void> registerDefaults(const Dictionary& defaults);

  // Calls `handler` after each change of a setting of this domain, by any program, with its key.
  // The key is empty if changes may have been missed: read all settings then.
  std::unique_ptr<Observation> watch(std::function<void(const std::string& key)> handler);

 private:
  const std::unique_ptr<SettingsParts> parts_;
};

}  // namespace vantor
