#pragma once

#include <array>

// A settings domain; each has its own server.
struct GlobalSettingsDomain {
  const char* prefix;             // of the factory's selector, and the domain's name in a catalogue
  const char* connectionName;     // registered by the server
  const char* startNotification;  // posted by the server once it answers
};

// All domains. Two pairs of names deliberately differ: the servers use these names.
inline constexpr std::array<GlobalSettingsDomain, 8> kGlobalSettingsDomains{{
    {"update", "com.vantor.UpdatePreferences", "com.vantor.UpdatePreferences.didStart"},
    {"common", "com.vantor.CommonPreferences", "com.vantor.CommonPreferences.didStart"},
    {"deviceControl", "com.vantor.DeviceControl", "com.vantor.DeviceControlPreferences.didStart"},
    {"appControl", "com.vantor.AppControl", "com.vantor.AppPreferences.didStart"},
    {"cmx", "com.vantor.CmxPreferences", "com.vantor.CmxPreferences.didStart"},
    {"heartbeat", "com.vantor.HeartbeatPreferences", "com.vantor.HeartbeatPreferences.didStart"},
    {"ntp", "com.vantor.NetworkThreatProtection", "com.vantor.NetworkThreatProtection.didStart"},
    {"webControl", "com.vantor.WebControlPreferences", "com.vantor.WebControlPreferences.didStart"},
}};
