#pragma once

#include <expected>
#include <memory>
#include <string_view>

#include "Platform/Messages/NSProxy.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/NameTable.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

// Reads one of the global settings servers, with the few methods that decisions need, so that tests
// can supply their own settings. Belongs to the main thread; a question blocks for the server's
// answer.
class SettingsClient {
 public:
  virtual ~SettingsClient() = default;

  // The setting's current value, nil if there is none or the server can't be reached.
  virtual platform::Value objectForKey(std::string_view key) = 0;

  // Whether the server has answered the last objectForKey(), so that nil means that it has no such
  // setting.
  virtual bool hasAnswered() { return !isServerHung(); }

  // A probe: one attempt within `timeOut`. A failure is returned, and neither logged nor
  // remembered.
  virtual platform::MessageResult probeObjectForKey(std::string_view key,
                                                    platform::Duration timeOut) = 0;

  // Whether the server has not answered lately, and is not asked for that reason.
  virtual bool isServerHung() { return false; }

  // Call this if the server's start may have been missed: the next message looks the server up,
  // even if it did not answer lately.
  virtual void forgetConnection() = 0;
};

// The delegate of a settings client.
class KLXGlobalSettingsClientDelegate {
 public:
  virtual ~KLXGlobalSettingsClientDelegate() = default;

  // The server was started again. Optional: a delegate without this method is not notified.
  virtual void globalSettingsServerDidRestart(SettingsClient& /*client*/) {}
};

// The factories by their selectors, e.g. "commonSettingsClientWithDelegate:"; other selectors do
// not resolve. The delegate outlives the client. Null is nil.
using SettingsClientResult = std::expected<std::unique_ptr<SettingsClient>, platform::NSException>;
using SettingsClientFactories =
    platform::SelectorTable<SettingsClientResult(KLXGlobalSettingsClientDelegate& delegate)>;
