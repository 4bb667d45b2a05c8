#pragma once

#include <expected>
#include <memory>
#include <string_view>

#include "Platform/Messages/NSProxy.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/NameTable.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

// Who reads one of the global settings servers, as far as decisions need it; tests put settings of
// their own behind it. Belongs to the main thread; asking blocks for the server's answer.
class SettingsClient {
 public:
  virtual ~SettingsClient() = default;

  // The setting's current value, nil where there is none or the server can't be reached.
  virtual platform::Value objectForKey(std::string_view key) = 0;

  // The same for who only looks: what keeps the server from answering within `patience` is
  // returned, and neither logged nor remembered.
  virtual platform::MessageResult lookAtObjectForKey(std::string_view key,
                                                     platform::Duration patience) = 0;

  // The server's start may have been missed: the next message looks it up, also where it did not
  // answer lately.
  virtual void forgetConnection() = 0;
};

// Who hears of what happens to a client's server.
class KLXGlobalSettingsClientDelegate {
 public:
  virtual ~KLXGlobalSettingsClientDelegate() = default;

  // The server was started again. Optional: who does not take it up is not told.
  virtual void globalSettingsServerDidRestart(SettingsClient& /*client*/) {}
};

// The factories by their selectors, e.g. "commonSettingsClientWithDelegate:"; what is not there
// does not resolve. The delegate outlives the client. Null is nil.
using SettingsClientResult = std::expected<std::unique_ptr<SettingsClient>, platform::NSException>;
using SettingsClientFactories =
    platform::SelectorTable<SettingsClientResult(KLXGlobalSettingsClientDelegate& delegate)>;
