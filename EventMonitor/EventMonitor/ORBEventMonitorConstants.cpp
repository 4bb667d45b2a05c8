#include "EventMonitor/EventMonitor/ORBEventMonitorConstants.h"

const char kORBEventMonitorKeyForSystemVersion[] = "systemVersion";
const char kORBEventMonitorKeyForCustomerId[] = "customerId";
const char kORBEventMonitorKeyForMachineId[] = "machineId";
const char kORBEventMonitorKeyForSerialNumber[] = "serialNumber";
const char kORBEventMonitorKeyForProductVersion[] = "productVersion";
const char kORBEventMonitorKeyForProductVariant[] = "productVariant";
const char kORBEventMonitorEvent[] = "event";
const char kORBEventMonitorKeyForTimestamp[] = "timestamp";
const char kORBEventMonitorKeyForPort[] = "port";
const char kORBEventMonitorKeyForIp[] = "ip";
const char kORBEventMonitorKeyForUrl[] = "url";
const char kORBEventMonitorKeyForUserData[] = "userData";
