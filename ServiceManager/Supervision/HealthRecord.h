#pragma once

#include <cstdint>

// The state of a service, as the health record names it.
enum class HealthStatus : std::int64_t { kUnready = 0, kRunning = 1, kStopped = 2, kUpdating = 3 };

// Whether the outside health reporter may rely on a service, as the summary says it.
inline constexpr std::int64_t kHealthy = 0;
inline constexpr std::int64_t kUnhealthy = 1;

// The keys of ServiceHealth::healthRecord().
inline constexpr char kHealthReadyToReport[] = "ReadyToReport";  // boolean
inline constexpr char kHealthCrashLimit[] = "CrashLimit";        // integer
// By label, a dictionary for each service that has a status or a crash counter.
inline constexpr char kHealthServices[] = "Services";
inline constexpr char kHealthStatus[] = "Status";    // a HealthStatus; absent if it has none
inline constexpr char kHealthCrashes[] = "Crashes";  // forced stops since the last summary
inline constexpr char kHealthName[] = "Name";        // under which the summary lists it
// kHealthy or kUnhealthy, as a summary would say it now; absent if a summary would leave the
// service out.
inline constexpr char kHealthReported[] = "Reported";
