#pragma once

#include <string_view>

#include "Platform/Values/Value.h"

// The daemon's record of a service in `monitoredProcessesInfo`. A record is replaced whole.

// Whether the service's process is watched and its end is to be followed by an evaluation. A stop
// clears the mark also if it fails, and the watch stays.
inline constexpr std::string_view kMonitoringRecordMonitored = "Monitored";
// A placeholder that is written once and never read.
inline constexpr std::string_view kMonitoringRecordPid = "PID";
// Whether a user-interface client asked for the service to be stopped.
inline constexpr std::string_view kORBUserClientDidRequestShutdown =
    "kORBUserClientDidRequestShutdown";

platform::Value initialMonitoringRecord();
platform::Value monitoringRecordBySetting(const platform::Value& record, std::string_view mark,
                                          bool value);
