#pragma once

#include <cstddef>

#include "Platform/Messages/Protocol.h"

// What every global settings server answers. Keys and senders are strings; a sender says who asks
// for a change and may be nil.
inline constexpr char kKLXGlobalSettingsProtocol[] = "KLXGlobalSettingsProtocol";

// What a settings server posts after each change, and the key of its user info that names the
// changed setting.
inline constexpr char kKLXGlobalSettingsDidChangeNotification[] =
    "KLXGlobalSettingsDidChangeNotification";
inline constexpr char kKLXGlobalSettingsKeyModified[] = "KLXGlobalSettingsKeyModified";

// What a server may be given to keep for one setting: key and value as they travel, the value in a
// dictionary by its key (peerBodyBytes()). A larger one it refuses.
inline constexpr std::size_t kKLXGlobalSettingsMaxSettingBytes = std::size_t{64} * 1024;

// Puts the protocol into the table that `main` fills.
void addGlobalSettingsProtocol(platform::ProtocolTable& protocols);
