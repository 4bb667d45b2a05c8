#pragma once

#include <cstddef>

#include "Platform/Messages/Protocol.h"

// The protocol of every global settings server. Keys and senders are strings; a sender names the
// author of a change and may be nil.
inline constexpr char kKLXGlobalSettingsProtocol[] = "KLXGlobalSettingsProtocol";

// The notification that a settings server posts after each change, and the key in its user info
// that names the changed setting.
inline constexpr char kKLXGlobalSettingsDidChangeNotification[] =
    "KLXGlobalSettingsDidChangeNotification";
inline constexpr char kKLXGlobalSettingsKeyModified[] = "KLXGlobalSettingsKeyModified";

// The largest setting that a server accepts: key and value as they travel, the value in a
// dictionary by its key (peerBodyBytes()).
inline constexpr std::size_t kKLXGlobalSettingsMaxSettingBytes = std::size_t{64} * 1024;

// Adds the protocol to the table that `main` fills.
void addGlobalSettingsProtocol(platform::ProtocolTable& protocols);
