#pragma once

#include <array>

// One settings domain, each of which has a server of its own.
struct GlobalSettingsDomain {
  const char* prefix;             // of the factory's selector, and what a catalogue calls it
  const char* connectionName;     // that the server registers
  const char* startNotification;  // that the server posts once it can be asked
};

// All there are. Two pairs of names deliberately differ: that is how the servers call themselves.
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
