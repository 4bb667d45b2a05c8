#pragma once

#include <expected>
#include <memory>
#include <string_view>

#include "Platform/Exception.h"
#include "Platform/NameTable.h"
#include "Platform/Value.h"

// What the daemon asks of one of the global settings servers. Belongs to the main thread; asking
// blocks for the server's answer.
class SettingsClient {
 public:
  virtual ~SettingsClient() = default;

  // The setting's current value, nil where there is none or the server can't be reached.
  virtual platform::Value objectForKey(std::string_view key) = 0;
};

// Who hears that a client's server was started again.
class KLXGlobalSettingsClientDelegate {
 public:
  virtual ~KLXGlobalSettingsClientDelegate() = default;
  virtual void globalSettingsServerDidRestart(SettingsClient& client) = 0;
};

// The factories by their selectors, e.g. "commonSettingsClientWithDelegate:"; what is not there
// does not resolve. The delegate outlives the client. Null is nil.
using SettingsClientResult = std::expected<std::unique_ptr<SettingsClient>, platform::NSException>;
using SettingsClientFactories =
    platform::SelectorTable<SettingsClientResult(KLXGlobalSettingsClientDelegate& delegate)>;
