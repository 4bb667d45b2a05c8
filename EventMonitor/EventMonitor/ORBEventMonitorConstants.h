#pragma once

// Other programs of the product link this library. No program of this project uses it.

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
