#pragma once

// Kept for the other programs of the product, which link this library. No program here uses it.

// The keys of an event-monitor record, one for each of its fields.

extern const char kORBEventMonitorKeyForSystemVersion[];
extern const char kORBEventMonitorKeyForCustomerId[];
extern const char kORBEventMonitorKeyForMachineId[];
extern const char kORBEventMonitorKeyForSerialNumber[];
extern const char kORBEventMonitorKeyForProductVersion[];
extern const char kORBEventMonitorKeyForProductVariant[];
extern const char kORBEventMonitorEvent[];
extern const char kORBEventMonitorKeyForTimestamp[];
extern const char kORBEventMonitorKeyForPort[];
extern const char kORBEventMonitorKeyForIp[];
extern const char kORBEventMonitorKeyForUrl[];
extern const char kORBEventMonitorKeyForUserData[];
